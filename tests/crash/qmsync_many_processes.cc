// Many qmsync processes on one data directory: each of `--processes` runs
// `--syncs` syncs one after another while the server publishes new versions;
// then the server moves to a new era and one process runs the transition
// while the others go on syncing.
//
//   qmsync_many_processes [--processes N] [--syncs N] [--seed S]
//
// Every sync must succeed, except one that meets the new era's manifest
// before the transition has moved the directory, which must fail with the
// era failure (a sync never crosses eras). No file may be fetched twice for
// the same era, and at the end verify passes and every file is the new
// era's. Prints what it ran and every failure; exits 1 when there is any.
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cli/exit_codes.h"
#include "sync/support/posix_file.h"
#include "tests/cli/process.h"
#include "tests/crash/crash_world.h"

using namespace quillmarsh::sync;
using namespace quillmarsh::sync::testing;

int main(int argc, char** argv) {
  int processes = 4, syncs = 20;
  std::uint32_t seed = std::random_device{}();
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--processes") processes = std::atoi(argv[i + 1]);
    else if (arg == "--syncs") syncs = std::atoi(argv[i + 1]);
    else if (arg == "--seed") seed = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
    else processes = 0;  // not an option: the usage below
  }
  if (argc % 2 == 0 || processes < 1 || syncs < 1) {
    std::cerr << "usage: qmsync_many_processes [--processes N] [--syncs N] [--seed S]\n";
    return 2;
  }
  std::cout << "seed " << seed << std::endl;
  TempDir tmp;
  const std::string data_dir = tmp / "data";
  make_dirs(data_dir);
  ServedWorld world(seed, 4, 24);
  const std::vector<std::string> env = {"QUILLMARSH_SYNC_HTTP_CHUNK_BYTES=262144"};

  std::mutex mu;
  std::vector<std::string> failures;
  const auto fail = [&](const std::string& what, const std::string& printed) {
    std::lock_guard<std::mutex> lock(mu);
    failures.push_back(what + ": " + printed);
  };
  const auto run = [&](const std::vector<std::string>& command, const std::string& log) {
    return run_process(world.client(data_dir, command), tmp / log, env, 300);
  };
  // Each worker runs its syncs one after another, as separate processes.
  // Before the era moves a sync must succeed; after, it may also meet the
  // new era before the transition does and fail with the era failure.
  std::atomic<bool> era_moving{false};
  std::atomic<int> syncs_run{0};
  const auto worker = [&](int id, int count) {
    for (int i = 0; i < count; ++i) {
      const bool may_meet_new_era = era_moving.load();
      const ProcessResult r = run({"sync"}, "sync-" + std::to_string(id) + "-" + std::to_string(i));
      ++syncs_run;
      if (r.exit_code == 0 || (may_meet_new_era && r.exit_code == cli::kExitEra)) continue;
      fail("process " + std::to_string(id) + " sync " + std::to_string(i) + " exited " + std::to_string(r.exit_code),
           r.out + r.err);
    }
  };

  std::atomic<bool> publishing{true};
  int versions = 1;
  std::thread publisher([&] {
    std::mt19937 rng(seed);
    for (std::this_thread::sleep_for(std::chrono::milliseconds(300)); publishing;
         std::this_thread::sleep_for(std::chrono::milliseconds(300))) {
      world.publish_next_version(1 + static_cast<int>(rng() % 3));
      ++versions;
    }
  });
  {
    std::vector<std::jthread> workers;
    for (int id = 0; id < processes; ++id) workers.emplace_back(worker, id, syncs);
  }
  publishing = false;
  publisher.join();

  // The era moves; one process transitions while the others keep syncing.
  era_moving = true;
  const Published target = world.publish_next_era();
  {
    std::vector<std::jthread> workers;
    for (int id = 1; id < processes; ++id) workers.emplace_back(worker, id, 3);
    const ProcessResult r = run({"transition", std::to_string(target.era)}, "transition");
    if (r.exit_code != 0) fail("the transition exited " + std::to_string(r.exit_code), r.out + r.err);
  }
  if (const ProcessResult r = run({"verify"}, "verify"); r.exit_code != 0) {
    fail("verify at the end exited " + std::to_string(r.exit_code), r.out + r.err);
  }
  for (const std::string& f : convergence_failures(snapshot(data_dir), target)) fail("at the end: " + f, "");

  // Full fetches (no Range, or a range from byte 0) per store path, which
  // names the era ("/era_2/...").
  std::map<std::string, int> fetches;
  for (const RecordedRequest& r : world.store().requests()) {
    if (!r.range || r.range->starts_with("bytes=0-")) ++fetches[r.path];
  }
  for (const auto& [file, count] : fetches) {
    if (count > 1) fail(file + " was fetched " + std::to_string(count) + " times", "");
  }

  for (const std::string& f : failures) std::cout << "FAILURE " << f << "\n";
  std::cout << "processes: " << processes << ", syncs: " << syncs_run << ", versions published: " << versions
            << ", then era " << target.era << " by transition, " << fetches.size() << " files fetched"
            << "\nfailures: " << failures.size() << std::endl;
  return failures.empty() ? 0 : 1;
}
