#include "sync/manifest.h"

#include <gtest/gtest.h>

#include "sync/engine/platform.h"
#include "sync/errors.h"
#include "sync/paths/cached_digest.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync {
namespace {

std::shared_ptr<Json> manifest_data(const char* text) { return std::make_shared<Json>(Json::parse(text)); }

// Each filter returns a new document and leaves the one it was given as it
// was: the manifest in force may be shared with other threads.
TEST(ManifestFilters, RemoveDeclarationsAndRetiredFilesWithoutTouchingTheInput) {
  // A retired file has exactly five segments, whatever the separators.
  for (const char* path : {"found_strategies/a/b/c/pnl.long.arrow", "found_signals\\a\\b\\c\\pnl_long.arrow",
                           "/found_signals/a/b/c/pnl_long.arrow/", "found_signals////pnl_long.arrow"}) {
    EXPECT_TRUE(_is_retired_found_pnl_long_file(path)) << path;
  }
  for (const char* path : {"found_signals/a/b/pnl_long.arrow", "found_signals/a/b/c/d/pnl_long.arrow",
                           "useful_signals/a/b/c/pnl_long.arrow", "found_signals/a/b/c/PNL_LONG.arrow"}) {
    EXPECT_FALSE(_is_retired_found_pnl_long_file(path)) << path;
  }
  // Declarations go by a ".pxd" name (case counts) or a declaration kind.
  auto data = manifest_data(R"({"era_id": 3, "files": {
      "z.bin": {"kind": "feature"},
      "decl.pxd": {},
      "found_signals/a/b/c/pnl_long.arrow": {"kind": "found_signal_is_pnl"},
      "upper.PXD": {},
      "a.bin": {"kind": "vault_declaration"},
      "b.bin": {"kind": "backtester_declaration"}}, "tail": true})");
  const std::string before = json_text(*data);
  auto both_gone = _drop_retired_found_pnl_long_files(_drop_agent_bundle_declaration_files(data));
  EXPECT_EQ(json_text(*data), before);
  EXPECT_EQ(json_text(*both_gone), R"({"era_id": 3, "files": {"z.bin": {"kind": "feature"}, "upper.PXD": {}}, "tail": true})");
  EXPECT_TRUE(_manifest_has_agent_bundle_declarations(Manifest(data)));
  EXPECT_FALSE(_manifest_has_agent_bundle_declarations(Manifest(both_gone)));
  EXPECT_FALSE(_manifest_has_retired_found_pnl_long_files(Manifest(both_gone)));
}

// A manifest read straight from its text must be, entry for entry, the one
// the general reader builds; a text it cannot take is handed back whole.
TEST(ManifestFromText, DecodesAsTheGeneralReaderOrHandsTheTextBack) {
  const std::string platform = CURRENT_PLATFORM;
  const std::string taken = R"({"era_id": 3, "version": "v9", "base_url": "https://o.example/x", "useful_signals": {"a": [1.5, null]},
    "files": {"features/u/vocabulary.json": {"size_bytes": 10, "sha256": "ab"},
              "d/\u00e9t\u00e9.bin": {"size_bytes": -7, "sha256": "", "kind": "feature", "extra": {"deep": [1]}},
              "m/x.so": {"kind": "vault_module", "platform": "elsewhere_os", "sha256": null},
              "m/y.so": {"kind": "backtester_module", "platform": ")" + platform + R"(", "size_bytes": 0}},
    "pnl_column_count": 4})";
  std::string text = taken;
  const std::shared_ptr<Manifest> fast = Manifest::from_written_text(text);
  ASSERT_TRUE(fast);
  const Manifest general(parse_json_text(taken));
  EXPECT_EQ(fast->era_id, general.era_id);
  EXPECT_EQ(fast->version, general.version);
  EXPECT_EQ(fast->base_url, general.base_url);
  EXPECT_EQ(fast->useful_signals, general.useful_signals);
  EXPECT_EQ(fast->pnl_column_count, general.pnl_column_count);
  ASSERT_EQ(fast->entries().size(), general.entries().size());
  for (std::size_t i = 0; i < general.entries().size(); ++i) {
    const ManifestEntry& a = fast->entries()[i];
    const ManifestEntry& b = general.entries()[i];
    EXPECT_EQ(std::tie(a.path, a.size_bytes, a.sha256, a.sha256_given, a.kind, a.module, a.elsewhere, a.vocabulary),
              std::tie(b.path, b.size_bytes, b.sha256, b.sha256_given, b.kind, b.module, b.elsewhere, b.vocabulary))
        << b.path;
    EXPECT_EQ(fast->info(a), general.info(b)) << b.path;
    EXPECT_EQ(fast->find(b.path), &a);
  }
  EXPECT_EQ(fast->to_dict(), general.to_dict());
  EXPECT_EQ(fast->find("not/listed"), nullptr);

  // Each of these is for the general reader: the text comes back as it was.
  for (const std::string refused : {
           R"({"files": {"a": {"size_bytes": "10"}}})",                      // a size as text
           R"({"files": {"a": {"size_bytes": 1.0}}})",                       // a size as a float
           R"({"files": {"a": {"sha256": 5}}})",                             // a digest of another kind
           R"({"files": {"a": {"kind": null}}})",                            // a kind that is no text
           R"({"files": {"a": {"size_bytes": 1, "size_bytes": 2}}})",        // a repeated member
           R"({"files": {"a": {}, "a": {}}})",                               // a repeated path
           R"({"files": {"a": 1}})",                                         // an entry that is no map
           R"({"files": {"x.pxd": {}}})",                                    // what a filter removes
           R"({"files": {"found_signals/a/b/c/pnl_long.arrow": {}}})",
           R"({"era_id": 1})",                                               // no files at all
           R"({"files": [], "era_id": 1})",
           R"({"files": {}, "era_id": 1, "era_id": 2})",
           R"({"files": {}, "era_id": 1e999})",                              // what this reader cannot hold
           R"({"files": {})",                                                // no JSON
           "{\"files\": {\"\xff\": {}}}"}) {
    text = refused;
    EXPECT_EQ(Manifest::from_written_text(text), nullptr) << refused;
    EXPECT_EQ(text, refused);
  }
}

// The digest cache as written is read back to the very same bytes; any
// other shape is left to the general reader.
TEST(DigestCacheText, TheWrittenFormReadsBackByteForByteAndNothingElseIsTaken) {
  const std::string digest(64, 'e');
  DigestCache written_shape;
  written_shape.set("b/\xc3\xa9.bin", CachedDigest(5, -1, 2, 9223372036854775807, digest));
  written_shape.set("a \"q\".bin", CachedDigest(0, 0, 0, 0, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"));
  DigestCache cache = written_shape;
  // Kept as they stood: a digest in another spelling, a member of another kind.
  cache.set("c.bin", CachedDigest(1, 2, 3, 4, "\xe2\x82\xac" + std::string(62, 'E')));
  cache.set("d.bin", CachedDigest(Json{{"size_bytes", 1}, {"inode", 2.5}, {"sha256", digest}}));
  std::string text = digest_cache_text(cache, 1);
  EXPECT_EQ(text, json_text(Json{{"files",
                                  {{"a \"q\".bin", cache.at("a \"q\".bin").json()},
                                   {"b/\xc3\xa9.bin", {{"ctime_ns", 2}, {"inode", 9223372036854775807}, {"mtime_ns", -1},
                                                    {"sha256", digest}, {"size_bytes", 5}}},
                                   {"c.bin", {{"ctime_ns", 3}, {"inode", 4}, {"mtime_ns", 2},
                                              {"sha256", "\xe2\x82\xac" + std::string(62, 'E')}, {"size_bytes", 1}}},
                                   {"d.bin", {{"inode", 2.5}, {"sha256", digest}, {"size_bytes", 1}}}}},
                                 {"version", 1}}));
  EXPECT_FALSE(read_written_digest_cache(text, 1));

  cache = written_shape;
  const std::string written = digest_cache_text(cache, 1);
  std::string reading = written;
  auto read = read_written_digest_cache(reading, 1);
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, cache);
  EXPECT_EQ(read->at("b/\xc3\xa9.bin").sha256(), digest);
  EXPECT_EQ(digest_cache_text(*read, 1), written);
  reading = written;
  EXPECT_FALSE(read_written_digest_cache(reading, 2));
  const std::string entry = R"("a": {"ctime_ns": 1, "inode": 2, "mtime_ns": 3, "sha256": ")" + digest + R"(", )";
  for (std::string refused : {
           R"({"files": {)" + entry + R"("size_bytes": "4"}}, "version": 1})",
           R"({"files": {)" + entry + R"("sha256": "x"}}, "version": 1})",
           R"({"files": {)" + entry + R"("size_bytes": 4.0}}, "version": 1})",
           R"({"files": {)" + entry + R"("size_bytes": 4}}, "version": true})",
           R"({"files": {)" + entry + R"("size_bytes": 4}}, "version": 1} [])",
           std::string(R"({"files": {"a": {"ctime_ns": 1, "inode": 2, "mtime_ns": 3, "size_bytes": 4}}, "version": 1})"),
           std::string(R"({"files": {}, "version": 1, "version": 1})")}) {
    EXPECT_FALSE(read_written_digest_cache(refused, 1)) << refused;
  }
  // Paths out of order or repeated are put in order, the last of each kept,
  // and found whatever order they are asked in.
  const auto sized = [&](int size) { return entry + R"("size_bytes": )" + std::to_string(size) + "}"; };
  std::string taken = R"({"files": {"b)" + sized(1).substr(2) + ", \"c" + sized(2).substr(2) + ", \"a" +
                      sized(3).substr(2) + ", \"b" + sized(4).substr(2) + R"(}, "version": 1})";
  auto shuffled = read_written_digest_cache(taken, 1);
  ASSERT_TRUE(shuffled);
  std::string listed;
  for (const auto& [path, found] : shuffled->sorted()) listed += std::string(path) + std::to_string(found->size_bytes);
  EXPECT_EQ(listed, "a3b4c2");
  const std::pair<const char*, std::int64_t> asked[] = {{"c", 2}, {"a", 3}, {"b", 4}, {"zz", -1},
                                                        {"a", 3}, {"b", 4}, {"c", 2}, {"", -1}};
  for (const auto& [path, size] : asked) {
    const CachedDigest* found = shuffled->find(path);
    EXPECT_EQ(found ? found->size_bytes : -1, size) << path;
  }
}

}  // namespace
}  // namespace quillmarsh::sync
