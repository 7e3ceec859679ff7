#include <gtest/gtest.h>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;

class SyncPass : public testing::SyncFixture {
 protected:
  std::string manifest_on_disk() { return read_file(path("manifest.json")); }
};

// Declarations and retired files are dropped before anything is fetched;
// every other key stays in the manifest written, in the server's text.
// Vocabularies and the seed are not counted among the bytes downloaded.
TEST_F(SyncPass, FirstPassMirrorsTheEraAndWritesTheExactManifestText) {
  Json files = Json::object();
  files["features/a/x.arrow"] = store_file("features/a/x.arrow", "feature bytes", "feature");
  files["named_universes/u.json"] = store_file("named_universes/u.json", "{\"u\": \"\xc3\xa9\"}");
  files["useful_signals/r/g/signal_os/s.bin"] = store_file("useful_signals/r/g/signal_os/s.bin", "sig");
  Json m = with_artefacts(manifest(4, 10, files));
  m["pnl_column_count"] = 3;
  m["note"] = "caf\xc3\xa9";  // keys the component does not read stay
  Json served = m;
  // Without its digest the vocabulary's entry is completed from the
  // validated bytes, and that is what the manifest written holds.
  served["files"][testing::vocabulary_path("u")].erase("sha256");
  served["files"]["bundle/agent.pxd"] = store_file("bundle/agent.pxd", "decl");
  served["files"]["bundle/v.bin"] = store_file("bundle/v.bin", "v", "vault_declaration");
  served["files"]["found_signals/a/b/c/pnl_long.arrow"] = store_file("found_signals/a/b/c/pnl_long.arrow", "old");
  publish(served);

  auto manager = make_manager();
  const SyncResult result = manager->sync();

  EXPECT_EQ(manifest_on_disk(), json_text(m));
  EXPECT_EQ(read_file(path("features/a/x.arrow")), "feature bytes");
  EXPECT_EQ(read_file(path("useful_signals/r/g/signal_os/s.bin")), "sig");
  std::int64_t total = 0;
  for (const auto& [p, entry] : files.items()) total += entry["size_bytes"].get<std::int64_t>();
  EXPECT_EQ(result, (SyncResult{.features_downloaded = 1, .useful_signals_downloaded = 1, .bytes_downloaded = total,
                                .era_id = 4, .n_features = 1, .n_useful_signals = 1, .pnl_column_count = 3,
                                .vocabulary_downloaded = true, .shuffle_seed_downloaded = true}));
  EXPECT_EQ(manager->get_manifest()->version, 10);
  EXPECT_FALSE(path_exists(path(".sync_flock")));
  for (const char* dropped : {"bundle/agent.pxd", "bundle/v.bin", "found_signals/a/b/c/pnl_long.arrow"}) {
    EXPECT_FALSE(path_exists(path(dropped))) << dropped;
    EXPECT_EQ(store_.request_count(std::string("/bucket/") + dropped), 0u) << dropped;
  }
}

// One manager through manifests it cannot have or that do not fit, then
// one era through several versions, then another era. A refused token and a
// version bump that adds a file are the command line's cases, a probe naming
// another era the Python suite's era-mismatch case.
TEST_F(SyncPass, ServerAnswersDecideWhatAPassFetchesAndWhatItRefuses) {
  // Each ends the pass with its own failure before anything is written, and
  // the flock is released on the way out.
  auto manager = make_manager();
  publish(manifest(1, 1));
  api_.put("/data/manifest", "{not json");
  EXPECT_TRUE(outcome([&] { manager->sync(); }).starts_with("ManifestError: Invalid manifest JSON: "));

  Json huge = Json::object();
  huge["features/huge.bin"] = store_file("features/huge.bin", "x");
  huge["features/huge.bin"]["size_bytes"] = std::int64_t{1} << 60;  // an exabyte
  publish(manifest(1, 1, huge));
  EXPECT_TRUE(outcome([&] { manager->sync(); })
                  .starts_with("DiskSpaceError: Insufficient disk space: need 1152921504606846976 bytes, have "));
  EXPECT_TRUE(store_.requests().empty());
  EXPECT_FALSE(path_exists(path("manifest.json")));
  EXPECT_FALSE(path_exists(path(".sync_flock")));

  // An era through several versions.
  Json files = Json::object();
  files["features/a.bin"] = store_file("features/a.bin", "good bytes", "feature");
  publish(with_artefacts(manifest(1, 3, files)));
  manager->sync();
  // Unchanged: one request, nothing fetched, and the files judged by the
  // digest cache alone: bytes remembered as good are not read.
  write_file(path("features/a.bin"), "bad bytes!");
  manager->_remember_local_sha("features/a.bin", path("features/a.bin"), _sha256("good bytes"));
  api_.clear_requests();
  store_.clear_requests();
  EXPECT_EQ(manager->sync(), (SyncResult{.era_id = 1, .n_features = 1}));
  EXPECT_EQ(api_.requests().size(), 1u);
  EXPECT_EQ(api_.request_count("/data/manifest/version"), 1u);
  EXPECT_TRUE(store_.requests().empty());
  EXPECT_EQ(read_file(path("features/a.bin")), "bad bytes!");
  // A damaged file is a repair.
  write_file(path("features/a.bin"), "bad bytes");
  manager->sync();
  EXPECT_EQ(read_file(path("features/a.bin")), "good bytes");
  EXPECT_EQ(logged_starting("Manifest-tracked local file failed integrity check; re-downloading: "), 1u);

  // Not found or unparseable, or a version without an era: the manifest decides.
  api_.clear_requests();
  api_.fault("/data/manifest/version", Fault{.status = 404});
  manager->sync();
  EXPECT_EQ(api_.request_count("/data/manifest"), 1u);
  api_.clear_faults();
  for (const char* probe : {"{\"version\": \"three\"}", "{\"version\": 3}"}) {
    api_.put("/data/manifest/version", probe);
    manager->sync();
  }
  EXPECT_EQ(api_.request_count("/data/manifest"), 3u);

  // An older version is taken when the files fit it.
  Json older = with_artefacts(manifest(1, 2));
  older["extra"] = true;
  publish(older);
  EXPECT_EQ(manager->sync(), SyncResult{.era_id = 1});
  EXPECT_EQ(manifest_on_disk(), json_text(older));

  // A version document that still names the old era lets the manifest speak.
  const auto manifest_before = manager->get_manifest();
  publish(manifest(3, 6), Json{{"version", 6}, {"era_id", 1}});
  EXPECT_EQ(outcome([&] { manager->sync(); }), "EraError: Era mismatch: local era_id=1, server era_id=3");
  EXPECT_EQ(manifest_on_disk(), json_text(older));
  EXPECT_EQ(manager->get_manifest(), manifest_before);
}

}  // namespace
}  // namespace quillmarsh::sync
