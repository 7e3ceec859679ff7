// An era transition over a directory in which nothing changed, timed beside
// `sha256sum` over the same files: the transition hashes every live file
// afresh and asks the server about the era once per file, so hashing is its
// floor and the requests are its overhead.
//
//   bench_transition [--files N] [--kib K] [--rounds R] [--dir DIR]
//
// Both sides read from the page cache. Prints the best time of each, their
// ratio (target: at most 3) and the requests the transition made.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sync/collaborators/auth.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/engine/curl_session.h"
#include "sync/engine/file_primitives.h"
#include "sync/manifest.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_server.h"

namespace qs = quillmarsh::sync;
using qs::Json;

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class QuietTracker : public qs::SearchTracker {
 public:
  void handle_era_transition(std::int64_t, std::optional<std::int64_t>) override {}
  void close() override {}
};
class QuietTracking : public qs::SearchTracking {
 public:
  std::shared_ptr<qs::SearchTracker> open_tracker(const std::string&,
                                                  std::optional<std::shared_ptr<qs::Identity>>) override {
    return std::make_shared<QuietTracker>();
  }
};
class QuietAuth : public qs::Auth {
 public:
  void notify_era_change(std::int64_t) override {}
};

std::string seed_bytes() { return std::string(60, 'S'); }

std::string vocabulary_text(std::int64_t era) {
  return qs::json_text(Json{{"era_id", era}, {"named_universe", "u"}, {"rotations", Json::array()},
                            {"filtrations", Json::array()}, {"reductions", Json::object()},
                            {"features", Json::array({"f"})}, {"metadata", Json{{"named_universe", "u"}}}});
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t files = 10000, kib = 64;
  int rounds = 3;
  const char* tmpdir = std::getenv("TMPDIR");
  std::string dir = tmpdir && *tmpdir ? tmpdir : "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--files") files = std::strtoul(argv[i + 1], nullptr, 10);
    else if (flag == "--kib") kib = std::strtoul(argv[i + 1], nullptr, 10);
    else if (flag == "--rounds") rounds = std::atoi(argv[i + 1]);
    else if (flag == "--dir") dir = argv[i + 1];
  }
  setenv("TMPDIR", dir.c_str(), 1);
  qs::testing::TempDir data;
  qs::testing::TestServer api;
  qs::testing::TestServer store;
  qs::set_extra_ca_file(qs::testing::TestServer::ca_file());
  qs::search_tracking_slot().set(std::make_shared<QuietTracking>());
  qs::auth_slot().set(std::make_shared<QuietAuth>());

  // The same files in era 1 (on disk) and era 2 (on the server).
  Json entries = Json::object();
  std::string block(kib * 1024, '\0');
  std::uint64_t x = 0x9E3779B97F4A7C15ull;
  for (std::size_t n = 0; n < files; ++n) {
    for (char& c : block) x ^= x << 13, x ^= x >> 7, x ^= x << 17, c = static_cast<char>(x);
    const std::string relative = "features/u/f" + std::to_string(n) + ".bin";
    qs::make_dirs(qs::dir_name(data / relative));
    qs::write_file(data / relative, block);
    entries[relative] = Json{{"size_bytes", block.size()}, {"sha256", qs::_sha256(block)}};
  }
  // Each era has its own vocabulary: the one file a transition must fetch.
  const std::string vocabulary_path = "features/u/vocabulary.json";
  qs::write_file(data / vocabulary_path, vocabulary_text(1));
  Json era_1_entries = entries;
  era_1_entries[vocabulary_path] = Json{{"size_bytes", vocabulary_text(1).size()}, {"sha256", qs::_sha256(vocabulary_text(1))}};
  entries[vocabulary_path] = Json{{"size_bytes", vocabulary_text(2).size()}, {"sha256", qs::_sha256(vocabulary_text(2))}};
  store.put("/store/" + vocabulary_path, vocabulary_text(2));
  Json era_1 = Json{{"era_id", 1}, {"version", 1}, {"base_url", store.base_url() + "/store"}, {"files", era_1_entries}};
  qs::_write_manifest_json(data.path(), era_1);
  Json era_2 = era_1;
  era_2["era_id"] = 2;
  era_2["files"] = entries;
  api.put("/data/manifest", qs::json_text(era_2), {{"Content-Type", "application/json"}});
  api.put("/era/current", R"({"era_id": 2, "state": "active"})", {{"Content-Type", "application/json"}});
  api.put("/data/shuffle", seed_bytes(), {{"X-Era-Id", "2"}});

  const std::string hash_all = "find '" + data.path() + "/features' -type f -print0 | xargs -0 sha256sum >/dev/null";
  if (std::system(hash_all.c_str()) != 0) return 1;  // warms the page cache

  auto manager = qs::SyncManager::create(data.path(), api.base_url(), [] { return std::string("bench"); });
  double best_ours = 1e9, best_peer = 1e9;
  std::size_t requests = 0;
  for (int r = 0; r < rounds; ++r) {
    api.clear_requests();
    auto t = std::chrono::steady_clock::now();
    manager->trigger_era_transition(2);
    best_ours = std::min(best_ours, seconds_since(t));
    requests = api.requests().size();
    t = std::chrono::steady_clock::now();
    if (std::system(hash_all.c_str()) != 0) return 1;
    best_peer = std::min(best_peer, seconds_since(t));
  }

  const double mb = static_cast<double>(files * kib * 1024) / 1e6;
  std::printf("%zu files of %zu KiB (%.0f MB), nothing changed, best of %d rounds\n", files, kib, mb, rounds);
  std::printf("trigger_era_transition  %7.3f s  %8.1f MB/s\n", best_ours, mb / best_ours);
  std::printf("sha256sum               %7.3f s  %8.1f MB/s\n", best_peer, mb / best_peer);
  std::printf("requests in the last transition: %zu (one era check per file, the gates, manifest, seed;\n"
              "  the first one also fetched the new vocabulary)\n", requests);
  std::printf("ratio (transition / sha256sum): %.3f  (target <= 3)\n", best_ours / best_peer);
  return 0;
}
