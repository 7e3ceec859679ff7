// The digest cache: its file form, what survives a restart, which stat
// changes invalidate an entry, and the local comparison built on it. When
// the cache is marked dirty and flushed costs writes only, never a wrong
// verdict; the VerifyRepair suite sees a repair flush it. Whether a file was
// read shows where the cache holds a digest its bytes do not have: a check
// that trusts the cache believes it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sync/engine/platform.h"
#include "sync/paths/cached_digest.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "sync/support/log.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::entry_of;

// An entry in the cache's own form for the file as it stands.
Json cache_entry(const std::string& local_path, const std::string& sha) {
  const FileStat st = stat_path(local_path);
  return Json{{"ctime_ns", st.ctime_ns}, {"inode", static_cast<std::int64_t>(st.inode)}, {"mtime_ns", st.mtime_ns},
              {"sha256", sha}, {"size_bytes", st.size}};
}

void set_mtime_ns(const std::string& p, std::int64_t ns) {
  const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)}};
  ASSERT_EQ(::utimensat(AT_FDCWD, p.c_str(), times, 0), 0);
}

// The cache is local: a manager over a fresh directory whose API is never asked.
class HashCache : public testing::DataDirFixture {
 protected:
  std::string cache_file() { return path(".sync_hash_cache.json"); }
};

// A restarted manager trusting what was persisted shows where a planted
// file is hit below; the text form written is pinned by DigestCacheText.
TEST_F(HashCache, AHitNeedsEveryStatFieldToMatchSoARewriteKeepingSizeAndTimeMisses) {
  const std::string p = put_local("f.bin", "real");
  const std::string claimed = _sha256("fake");  // same size, other bytes
  const Json good = cache_entry(p, claimed);
  // Planted through the file; a hit is trusted, the bytes are not read.
  write_file(cache_file(), json_text(Json{{"version", 1}, {"files", {{"f.bin", good}}}}));
  auto m = make_manager();
  EXPECT_EQ(m->_cached_local_sha("f.bin", p, claimed), claimed);

  auto hits_with = [&](const Json& entry) {
    std::lock_guard<std::mutex> lock(m->_hash_cache_lock);
    m->_hash_cache.set("f.bin", CachedDigest(entry));
  };
  // Each stat field moved, left out (null here) or unparsable misses; as text it still counts.
  for (const char* field : {"size_bytes", "mtime_ns", "ctime_ns", "inode"}) {
    const std::int64_t value = good[field].get<std::int64_t>();
    const std::pair<Json, bool> variants[] = {{value + 1, false}, {Json(), false}, {"many", false},
                                              {std::to_string(value), true}};
    for (const auto& [changed, hits] : variants) {
      Json entry = good;
      if (changed.is_null()) entry.erase(field);
      else entry[field] = changed;
      hits_with(entry);
      EXPECT_EQ(m->_cached_local_sha("f.bin", p, claimed), hits ? std::optional<std::string>(claimed) : std::nullopt)
          << field << " " << changed;
    }
  }
  EXPECT_EQ(m->_cached_local_sha("f.bin", path("gone.bin"), claimed), std::nullopt);

  // A miss hashes the file, and what it finds replaces the entry.
  EXPECT_TRUE(m->_local_file_matches_manifest("f.bin", p, entry_of("real")));
  EXPECT_EQ(m->_hash_cache.at("f.bin").json(), cache_entry(p, _sha256("real")));

  // A rewrite that keeps size and modification time misses. In place: the
  // inode stays, the modification time is put back.
  const FileStat recorded = stat_path(p);
  write_file(p, "evil");
  set_mtime_ns(p, recorded.mtime_ns);
  // The status-change clock may be coarse: touch until it has moved.
  for (int i = 0; i < 1000000 && stat_path(p).ctime_ns == recorded.ctime_ns; ++i) set_mtime_ns(p, recorded.mtime_ns);
  ASSERT_EQ(stat_path(p).inode, recorded.inode);
  ASSERT_EQ(stat_path(p).mtime_ns, recorded.mtime_ns);
  EXPECT_EQ(m->_cached_local_sha("f.bin", p, _sha256("real")), std::nullopt);
  EXPECT_FALSE(m->_local_file_matches_manifest("f.bin", p, entry_of("real")));

  // A new file renamed over it, with the old time: a new inode.
  ASSERT_TRUE(m->_local_file_matches_manifest("f.bin", p, entry_of("evil")));
  const FileStat before = stat_path(p);
  write_file(p + ".new", "real");
  set_mtime_ns(p + ".new", before.mtime_ns);
  rename_file(p + ".new", p);
  ASSERT_NE(stat_path(p).inode, before.inode);
  EXPECT_EQ(m->_cached_local_sha("f.bin", p, _sha256("evil")), std::nullopt);
  EXPECT_FALSE(m->_local_file_matches_manifest("f.bin", p, entry_of("evil")));
}

TEST_F(HashCache, UnusableCacheFilesLoadAsAnEmptyCache) {
  for (const char* text : {"{\"files\": {", "{\"files\": {\"a\": {}}, \"version\": \"1\"}", "[1]"}) {
    write_file(cache_file(), text);
    EXPECT_TRUE(make_manager()->_hash_cache.empty()) << text;
  }

  // Entries that are no objects are dropped; the fields of the rest are not checked.
  write_file(cache_file(), "{\"version\": 1.0, \"files\": {\"a\": {\"sha256\": 5, \"z\": [{\"y\": 1, \"x\": 2}]}, \"b\": 7}}");
  auto m = make_manager();
  ASSERT_EQ(m->_hash_cache.size(), 1u);
  // A flush rewrites the file whole, in sorted form, with the kept entry.
  const std::string p = put_local("c.bin", "c");
  EXPECT_TRUE(m->_local_file_matches_manifest("c.bin", p, entry_of("c")));
  m->_persist_hash_cache();
  EXPECT_EQ(read_file(cache_file()), "{\"files\": {\"a\": {\"sha256\": 5, \"z\": [{\"x\": 2, \"y\": 1}]}, \"c.bin\": " +
                                         json_text(cache_entry(p, _sha256("c"))) + "}, \"version\": 1}");
}

// Whatever hashes a file with the cache allowed remembers the digest, so an
// empty cache shows that nothing was read.
TEST_F(HashCache, TheSizeTestComesFirstAndAMismatchIsNeverCached) {
  const std::string p = put_local("f.bin", "1234");
  auto m = make_manager();
  EXPECT_FALSE(m->_local_file_matches_manifest("f.bin", p, entry_of("12345")));
  EXPECT_FALSE(m->_local_file_matches_manifest("missing.bin", path("missing.bin"), entry_of("1234")));
  EXPECT_TRUE(m->_local_file_matches_manifest("f.bin", p, Json{{"size_bytes", "4"}, {"sha256", ""}}));
  EXPECT_TRUE(m->_local_file_matches_manifest("f.bin", p, Json{{"size_bytes", 4}, {"sha256", nullptr}}));
  EXPECT_TRUE(m->_hash_cache.empty());
  // A given digest that is not text is compared all the same, and differs.
  for (const Json& digest : {Json(7), Json(true), Json::array({_sha256("1234")})}) {
    EXPECT_FALSE(m->_local_file_matches_manifest("f.bin", p, Json{{"size_bytes", 4}, {"sha256", digest}}))
        << digest.dump();
  }

  // An unusable or negative size leaves the decision to the digest.
  for (const Json& size : {Json(-1), Json("many")}) {
    EXPECT_TRUE(m->_local_file_matches_manifest("f.bin", p, Json{{"size_bytes", size}, {"sha256", _sha256("1234")}}));
    EXPECT_FALSE(m->_local_file_matches_manifest("f.bin", p, Json{{"size_bytes", size}, {"sha256", _sha256("4321")}}));
  }

  // A cached digest other than the one asked for is no verdict: the file is
  // hashed again, and what it holds replaces the entry.
  m->_remember_local_sha("f.bin", p, _sha256("4321"));
  EXPECT_TRUE(m->_local_file_matches_manifest("f.bin", p, entry_of("1234")));
  EXPECT_EQ(m->_hash_cache.at("f.bin").sha256(), _sha256("1234"));

  // Modules never use the cache: never stored, and read at every check.
  const std::string so = put_local("modules/m.so", "module");
  Json module = entry_of("module");
  module["kind"] = "vault_module";
  module["platform"] = CURRENT_PLATFORM;
  ManifestPathResolver paths(m->_data_dir);
  const ManifestEntry decoded = decode_manifest_entry("modules/m.so", module);
  EXPECT_TRUE(m->_local_entry_passes(decoded, paths));
  EXPECT_EQ(m->_hash_cache.find("modules/m.so"), nullptr);
  write_file(so, "MODULE");
  m->_remember_local_sha("modules/m.so", so, _sha256("module"));
  EXPECT_FALSE(m->_local_entry_passes(decoded, paths));
}

// The digest cache as written is read back to the very same bytes; any
// other shape is left to the general reader. An entry of another shape kept
// as it stood, and the written form of an entry, show in the suite above.
// Paths out of order or repeated come only from a hand-edited file and cost
// no more than a hash each: their reading is left unchecked.
TEST(DigestCacheText, TheWrittenFormReadsBackByteForByteAndNothingElseIsTaken) {
  const std::string digest(64, 'e');
  DigestCache cache;
  cache.set("b/\xc3\xa9.bin", CachedDigest(5, -1, 2, 9223372036854775807, digest));
  cache.set("a \"q\".bin", CachedDigest(0, 0, 0, 0, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"));
  const std::string written = digest_cache_text(cache, 1);
  EXPECT_EQ(written, json_text(Json{{"files",
                                     {{"a \"q\".bin", cache.at("a \"q\".bin").json()},
                                      {"b/\xc3\xa9.bin", {{"ctime_ns", 2}, {"inode", 9223372036854775807},
                                                       {"mtime_ns", -1}, {"sha256", digest}, {"size_bytes", 5}}}}},
                                    {"version", 1}}));
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
}

}  // namespace
}  // namespace quillmarsh::sync
