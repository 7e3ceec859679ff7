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

using testing::outcome_and_cause;
using testing::Fault;
using testing::Headers;
using testing::outcome;
using testing::seed_bytes;
using testing::SyncFixture;
using testing::TempDir;

TEST(EraHeader, MissingIsASyncErrorAndAnythingElseWrongAnEraError) {
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {"7", "ok"},
      {"007", "ok"},
      {" +7 ", "ok"},
      {std::nullopt, "SyncError: seed response is missing X-Era-Id"},
      {"", "EraError: seed response has invalid X-Era-Id=''"},
      {"seven", "EraError: seed response has invalid X-Era-Id='seven'"},
      {"7.0", "EraError: seed response has invalid X-Era-Id='7.0'"},
      {"8", "EraError: seed response era_id=8 does not match manifest era_id=7"},
      {"-7", "EraError: seed response era_id=-7 does not match manifest era_id=7"},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(value.value_or("<absent>"));
    std::map<std::string, std::string> headers = {{"Content-Length", "60"}};
    if (value) headers["X-ERA-ID"] = *value;
    EXPECT_EQ(outcome([&] { _validate_response_era_header(headers, 7, "seed"); }), expected);
  }
  // The conversion failure is kept as the cause.
  EXPECT_TRUE(outcome_and_cause([] { _validate_response_era_header({{"X-Era-Id", "x"}}, 7, "seed"); })
                  .cause.starts_with("ValueError: "));
}

class SeedFile : public ::testing::Test {
 protected:
  std::string seed() const { return dir_ / "shuffle_seed.enc"; }
  std::string meta() const { return dir_ / "shuffle_seed.enc.meta.json"; }
  TempDir dir_;
};

TEST_F(SeedFile, TheSideFileIsOneLineOfJsonWithTheEra) {
  EXPECT_EQ(_shuffle_seed_meta_path(seed()), meta());
  _write_shuffle_seed_metadata(seed(), 7);
  EXPECT_EQ(read_file(meta()), "{\"era_id\": 7}");
  _write_shuffle_seed_metadata(seed(), Json(" 12 "));
  EXPECT_EQ(read_file(meta()), "{\"era_id\": 12}");
  EXPECT_FALSE(path_exists(meta() + ".tmp"));
  EXPECT_THROW(_write_shuffle_seed_metadata(seed(), Json("twelve")), ValueError);
  EXPECT_EQ(read_file(meta()), "{\"era_id\": 12}");
}

TEST_F(SeedFile, ValidationRunsItsTestsInOrder) {
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
      {"59 bytes", std::string(59, 's'), "{\"era_id\": 7}", 7,
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      {"61 bytes, no era asked", std::string(61, 's'), std::nullopt, std::nullopt,
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 61"},
      {"no era asked, no side file", good, std::nullopt, std::nullopt, "ok"},
      {"no side file", good, std::nullopt, 7, "SyncError: shuffle_seed.enc era metadata is missing"},
      {"side file not JSON", good, "{\"era_id\": ", 7, "SyncError: shuffle_seed.enc era metadata is invalid"},
      {"side file not UTF-8", good, "{\"era_id\": \"\xff\"}", 7,
       "SyncError: shuffle_seed.enc era metadata is invalid"},
      {"era key missing", good, "{\"era\": 7}", 7,
       "EraError: shuffle_seed.enc era metadata has invalid era_id=None"},
      {"era not a number", good, "{\"era_id\": \"seven\"}", 7,
       "EraError: shuffle_seed.enc era metadata has invalid era_id='seven'"},
      {"era a list", good, "{\"era_id\": [7]}", 7, "EraError: shuffle_seed.enc era metadata has invalid era_id=[7]"},
      {"other era", good, "{\"era_id\": 6}", 7,
       "EraError: shuffle_seed.enc era_id=6 does not match manifest era_id=7"},
      {"era as text", good, "{\"era_id\": \"7\"}", 7, "ok"},
      {"era as it was written", good, "{\"era_id\": 7}", 7, "ok"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    remove_file(seed());
    remove_file(meta());
    if (c.seed_bytes) write_file(seed(), *c.seed_bytes);
    if (c.meta_text) write_file(meta(), *c.meta_text);
    EXPECT_EQ(outcome([&] { _validate_shuffle_seed_file(seed(), c.era); }), c.expected);
  }
  // JSON that is no object is no finding about the seed.
  write_file(seed(), good);
  write_file(meta(), "[7]");
  EXPECT_TRUE(outcome([&] { _validate_shuffle_seed_file(seed(), 7); }).starts_with("TypeError: "));
}

class SeedDownload : public SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    manager_ = make_manager();
    server_manifest_ = std::make_shared<Manifest>(manifest(4, 1));
  }
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
  std::shared_ptr<SyncManager> manager_;
  std::shared_ptr<Manifest> server_manifest_;
};

TEST_F(SeedDownload, AFreshSeedLandsWithItsSideFile) {
  serve(seed_bytes(4), {{"x-ERA-id", "0004"}});
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(4));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 4}");
  const auto requests = api_.requests();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].path, "/data/shuffle");
  EXPECT_EQ(requests[0].header("Authorization"), "Bearer test-token");
  EXPECT_EQ(requests[0].range, std::nullopt);
}

TEST_F(SeedDownload, ABadResponseLeavesTheOldSeedAsItWas) {
  place(3);
  const std::string old_meta = read_file(path("shuffle_seed.enc.meta.json"));
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { serve(seed_bytes(4).substr(1)); },
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      // The header is judged before the size.
      {[&] { serve("short", {}); }, "SyncError: shuffle_seed.enc response is missing X-Era-Id"},
      {[&] { serve(seed_bytes(4), {{"X-Era-Id", "four"}}); },
       "EraError: shuffle_seed.enc response has invalid X-Era-Id='four'"},
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

TEST_F(SeedDownload, AValidSeedStandsOnlyWhileTheManifestInForceIsOfItsEra) {
  place(4);
  serve(seed_bytes(4));
  // No manifest in force: fetched again.
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(api_.request_count("/data/shuffle"), 1u);

  manager_->_manifest.store(std::make_shared<Manifest>(manifest(3, 9)));
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(api_.request_count("/data/shuffle"), 2u);

  manager_->_manifest.store(std::make_shared<Manifest>(manifest(4, 9)));
  EXPECT_FALSE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(api_.request_count("/data/shuffle"), 2u);
  EXPECT_TRUE(log_.records().empty());
}

TEST_F(SeedDownload, ALocalSeedOfAnotherEraIsReplacedAndAnUnreadableSideFileTravels) {
  manager_->_manifest.store(std::make_shared<Manifest>(manifest(4, 9)));
  place(3);
  serve(seed_bytes(4));
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_));
  EXPECT_EQ(log_.count(LogLevel::warning,
                       "Local shuffle seed failed validation; re-downloading: "
                       "shuffle_seed.enc era_id=3 does not match manifest era_id=4"),
            1u);
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(4));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 4}");

  // A side file that is JSON but no object is not a bad seed: no fetch.
  write_file(path("shuffle_seed.enc.meta.json"), "4");
  api_.clear_requests();
  EXPECT_TRUE(download_failure().starts_with("TypeError: ")) << download_failure();
  EXPECT_EQ(api_.request_count("/data/shuffle"), 0u);
}

TEST_F(SeedDownload, AStagingDirectoryLeavesTheLiveSeedAlone) {
  place(3);
  serve(seed_bytes(4));
  TempDir staging;
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_, staging.path()));
  EXPECT_EQ(read_file(staging / "shuffle_seed.enc"), seed_bytes(4));
  EXPECT_EQ(read_file(staging / "shuffle_seed.enc.meta.json"), "{\"era_id\": 4}");
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(3));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 3}");

  // An empty directory counts as none.
  EXPECT_TRUE(manager_->_download_shuffle_seed(*server_manifest_, std::string()));
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(4));
}

}  // namespace
}  // namespace quillmarsh::sync
