// The shuffle seed: its era header, its side file, its validation and its
// download.
#include <gtest/gtest.h>

#include <functional>

#include "sync/artefacts/shuffle_seed.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::Headers;
using testing::outcome;
using testing::seed_bytes;
using testing::SyncFixture;
using testing::TempDir;

TEST(SeedFile, ValidationRunsItsTestsInOrderAndTheSideFileHoldsTheEra) {
  TempDir dir;
  const std::string seed = dir / "shuffle_seed.enc", meta = dir / "shuffle_seed.enc.meta.json";
  struct Case {
    const char* name;
    std::optional<std::string> seed_bytes;  // absent: no seed file
    std::optional<std::string> meta_text;   // absent: no side file
    std::optional<std::int64_t> era;
    std::string expected;
  };
  const std::string good(60, 's');
  const Case cases[] = {
      {"no seed", std::nullopt, "{\"era_id\": 7}", 7, "SyncError: shuffle_seed.enc is missing"},
      {"61 bytes, no era asked", std::string(61, 's'), std::nullopt, std::nullopt,
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 61"},
      {"no era asked, no side file", good, std::nullopt, std::nullopt, "ok"},
      {"no side file", good, std::nullopt, 7, "SyncError: shuffle_seed.enc era metadata is missing"},
      {"side file not JSON", good, "{\"era_id\": ", 7, "SyncError: shuffle_seed.enc era metadata is invalid"},
      {"era key missing", good, "{\"era\": 7}", 7,
       "EraError: shuffle_seed.enc era metadata has invalid era_id=None"},
      {"other era", good, "{\"era_id\": 6}", 7,
       "EraError: shuffle_seed.enc era_id=6 does not match manifest era_id=7"},
      {"era as text", good, "{\"era_id\": \"7\"}", 7, "ok"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    remove_file(seed);
    remove_file(meta);
    if (c.seed_bytes) write_file(seed, *c.seed_bytes);
    if (c.meta_text) write_file(meta, *c.meta_text);
    EXPECT_EQ(outcome([&] { _validate_shuffle_seed_file(seed, c.era); }), c.expected);
  }

  // The side file is written as one line of JSON, its era converted; an era
  // that will not convert leaves it as it was.
  _write_shuffle_seed_metadata(seed, Json(" 12 "));
  EXPECT_EQ(read_file(meta), "{\"era_id\": 12}");
  EXPECT_THROW(_write_shuffle_seed_metadata(seed, Json("twelve")), ValueError);
  EXPECT_EQ(read_file(meta), "{\"era_id\": 12}");
}

class SeedDownload : public SyncFixture {
 protected:
  void serve(const std::string& body, Headers headers = {{"X-Era-Id", "4"}}) {
    api_.put("/data/shuffle", body, std::move(headers));
  }
  // A seed of era `era` already in the data directory.
  void place(std::int64_t era) {
    write_file(path("shuffle_seed.enc"), seed_bytes(era));
    _write_shuffle_seed_metadata(path("shuffle_seed.enc"), era);
  }
  std::string download_failure() {
    return outcome([&] { manager_->_download_shuffle_seed(*server_manifest_); });
  }
  std::shared_ptr<SyncManager> manager_ = make_manager();
  std::shared_ptr<Manifest> server_manifest_ = std::make_shared<Manifest>(manifest(4, 1));
};

TEST_F(SeedDownload, ABadResponseLeavesTheOldSeedAsItWas) {
  place(3);
  const std::string old_meta = read_file(path("shuffle_seed.enc.meta.json"));
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { serve(seed_bytes(4).substr(1)); },
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      // The header is judged before the size.
      {[&] { serve("short", {}); }, "SyncError: shuffle_seed.enc response is missing X-Era-Id"},
      {[&] { serve("short", {{"X-Era-Id", "4.0"}}); }, "EraError: shuffle_seed.enc response has invalid X-Era-Id='4.0'"},
      {[&] { serve(seed_bytes(4), {{"X-Era-Id", "5"}}); },
       "EraError: shuffle_seed.enc response era_id=5 does not match manifest era_id=4"},
      {[&] { api_.fault("/data/shuffle", Fault{.status = 500}); }, "SyncError: Failed to download shuffle seed: HTTP 500"},
      // A refused login is not retried.
      {[&] { api_.fault("/data/shuffle", Fault{.status = 401, .body = "not 60 bytes"}); },
       "AuthError: Authentication failed while downloading shuffle seed: HTTP 401"},
  };
  for (const auto& [arrange, expected] : cases) {
    SCOPED_TRACE(expected);
    api_.clear_faults();
    api_.clear_requests();
    arrange();
    EXPECT_EQ(download_failure(), expected);
    EXPECT_EQ(api_.request_count("/data/shuffle"), 1u);
    EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(3));
    EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), old_meta);
  }
}

TEST_F(SeedDownload, ASeedIsFetchedUnlessAValidOneOfTheEraInForceIsThere) {
  place(3);
  serve(seed_bytes(4), {{"x-ERA-id", "0004"}});
  // A seed of another era fails validation and is replaced.
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(logged_starting("Local shuffle seed failed validation; re-downloading: "), 1u);
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(4));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 4}");

  // A valid seed of the era, but no manifest in force, or one of another era: fetched again.
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  manager_->_manifest.store(std::make_shared<Manifest>(manifest(3, 9)));
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(api_.request_count("/data/shuffle"), 3u);
  manager_->_manifest.store(std::make_shared<Manifest>(manifest(4, 9)));
  EXPECT_FALSE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(api_.request_count("/data/shuffle"), 3u);
  EXPECT_EQ(log_.records().size(), 1u);

  // A side file that is JSON but no object is not a bad seed: no fetch.
  write_file(path("shuffle_seed.enc.meta.json"), "4");
  EXPECT_TRUE(download_failure().starts_with("TypeError: ")) << download_failure();
  EXPECT_EQ(api_.request_count("/data/shuffle"), 3u);
}

}  // namespace
}  // namespace quillmarsh::sync
