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
using testing::result_or_failure;
using testing::seed_bytes;
using testing::SyncFixture;
using testing::TempDir;

TEST(SeedFile, ValidationRunsItsTestsInOrder) {
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
}

using SeedDownload = SyncFixture;

// Each row starts from a valid seed of `local_era` on disk, the manifest in
// force of `in_force` (none when 0) and the seed of era 4 served, then does
// what `arrange` says; the server's manifest is of era 4. A fetch replaces
// seed and side file, anything else leaves both as they were.
TEST_F(SeedDownload, FetchedUnlessAValidOneOfTheEraInForceIsThereAndABadAnswerChangesNothing) {
  const std::string seed = path("shuffle_seed.enc"), meta = path("shuffle_seed.enc.meta.json");
  const auto serve = [this](const std::string& body, Headers headers) {
    api_.put("/data/shuffle", body, std::move(headers));
  };
  struct Case {
    std::int64_t local_era;
    std::int64_t in_force;
    std::function<void()> arrange;
    std::string expected;  // "fetched", "kept" or the failure
    std::size_t requests = 1;
  };
  const Case cases[] = {
      // A seed of another era fails validation and is replaced.
      {3, 0, [&] { serve(seed_bytes(4), {{"x-ERA-id", "0004"}}); }, "fetched"},
      // A valid seed of the era, but no manifest in force, or one of another era: fetched again.
      {4, 0, [] {}, "fetched"},
      {4, 3, [] {}, "fetched"},
      {4, 4, [] {}, "kept", 0},
      {3, 0, [&] { serve(seed_bytes(4).substr(1), {{"X-Era-Id", "4"}}); },
       "SyncError: shuffle_seed.enc has invalid size: expected 60 bytes, got 59"},
      // The header is judged before the size.
      {3, 0, [&] { serve("short", {}); }, "SyncError: shuffle_seed.enc response is missing X-Era-Id"},
      {3, 0, [&] { serve("short", {{"X-Era-Id", "4.0"}}); },
       "EraError: shuffle_seed.enc response has invalid X-Era-Id='4.0'"},
      {3, 0, [&] { serve(seed_bytes(4), {{"X-Era-Id", "5"}}); },
       "EraError: shuffle_seed.enc response era_id=5 does not match manifest era_id=4"},
      {3, 0, [&] { api_.fault("/data/shuffle", Fault{.status = 500}); },
       "SyncError: Failed to download shuffle seed: HTTP 500"},
      // A refused login is not retried.
      {3, 0, [&] { api_.fault("/data/shuffle", Fault{.status = 401, .body = "not 60 bytes"}); },
       "AuthError: Authentication failed while downloading shuffle seed: HTTP 401"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.expected + " from era " + std::to_string(c.local_era) + ", in force " + std::to_string(c.in_force));
    api_.clear_faults();
    api_.clear_requests();
    log_.clear();
    write_file(seed, seed_bytes(c.local_era));
    _write_shuffle_seed_metadata(seed, c.local_era);
    serve(seed_bytes(4), {{"X-Era-Id", "4"}});
    c.arrange();
    auto manager = make_manager();
    if (c.in_force) manager->_manifest.store(std::make_shared<Manifest>(manifest(c.in_force, 9)));
    const std::string seed_before = read_file(seed), meta_before = read_file(meta);
    const std::string got = result_or_failure(
        [&] { return manager->_download_shuffle_seed(Manifest(manifest(4, 1))) ? "fetched" : "kept"; });
    EXPECT_EQ(got, c.expected);
    EXPECT_EQ(api_.request_count("/data/shuffle"), c.requests);
    EXPECT_EQ(read_file(seed), c.expected == "fetched" ? seed_bytes(4) : seed_before);
    EXPECT_EQ(read_file(meta), c.expected == "fetched" ? "{\"era_id\": 4}" : meta_before);
    // Only a seed of another era is told as bad.
    EXPECT_EQ(logged_starting("Local shuffle seed failed validation; re-downloading: "), c.local_era == 4 ? 0u : 1u);
  }
}

}  // namespace
}  // namespace quillmarsh::sync
