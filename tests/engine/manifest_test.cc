#include "sync/manifest.h"

#include <gtest/gtest.h>

#include "sync/engine/platform.h"
#include "sync/errors.h"
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
  EXPECT_EQ(std::tie(fast->era_id, fast->version, fast->base_url, fast->useful_signals, fast->pnl_column_count),
            std::tie(general.era_id, general.version, general.base_url, general.useful_signals,
                     general.pnl_column_count));
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
           R"({"era_id": 1})",                                               // no files at all
           R"({"files": {}, "era_id": 1, "era_id": 2})",
           R"({"files": {}, "era_id": 1e999})",                              // what this reader cannot hold
           R"({"files": {})",                                                // no JSON
           "{\"files\": {\"\xff\": {}}}"}) {
    text = refused;
    EXPECT_EQ(Manifest::from_written_text(text), nullptr) << refused;
    EXPECT_EQ(text, refused);
  }
}

}  // namespace
}  // namespace quillmarsh::sync
