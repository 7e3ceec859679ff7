// Kills qmsync with SIGKILL at random moments of a sync, a repair and an era
// transition, against a test server that stalls, cuts and spoils responses
// at random, and checks after every kill what a user's disk must never show:
// a file under its final name with bytes of no published version, a torn or
// foreign manifest.json, seed or side file, a hash cache that vouches for
// bytes a file does not hold; and that the next run converges and leaves no
// ".tmp" behind.
//
//   qmsync_crash_trials [--trials N] [--seed S]
//
// Before the random kills, one run of each kind is stopped at each named
// place where the disk is most at risk (QMSYNC_STOP_AT; see stop_point.h).
// Prints every violation, then the trials, the kill points reached and the
// count of violations; exits 1 when there is any.
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "sync/engine/file_primitives.h"
#include "sync/support/posix_file.h"
#include "tests/cli/process.h"
#include "tests/crash/crash_world.h"

using namespace quillmarsh::sync;
using namespace quillmarsh::sync::testing;

namespace {

enum Kind { kSync, kRepair, kTransition };
const std::string kKindNames[] = {"sync", "repair", "transition"};

// Misbehaviour for a few of the files the run will fetch, and now and then
// a slow manifest: every fault ends after a few requests, so a run that is
// not killed can finish.
void spoil_responses(ServedWorld& world, const Published& target, const std::vector<std::string>& likely_fetched,
                     std::mt19937& rng) {
  std::uniform_real_distribution<double> seconds(0.05, 0.3);
  for (int n = 0; n < 4 && !likely_fetched.empty(); ++n) {
    const std::string& path = likely_fetched[rng() % likely_fetched.size()];
    const std::size_t size = std::max<std::size_t>(target.files.at(path).size(), 1);
    Fault f{.times = 1, .skip = static_cast<int>(rng() % 3)};
    switch (rng() % 6) {
      case 0: f.stall_after_bytes = rng() % size, f.stall_s = seconds(rng), f.times = 1 + rng() % 3; break;
      case 1: f.cut_after_bytes = rng() % size; break;
      case 2: f.wrong_bytes = true; break;
      case 3: f.status = 503; break;
      case 4: f.delay_before_head_s = seconds(rng), f.times = 2; break;
      default: f.half_range = true; break;
    }
    world.store().fault(target.prefix() + "/" + path, f);
  }
  if (rng() % 3 == 0) world.api().fault("/data/manifest", {.delay_before_head_s = seconds(rng), .times = 1});
}

// Where in its work the process was when it died, read from what it left.
std::string kill_point(Kind kind, const DiskState& killed, const DiskState& before) {
  if (killed.manifest_text != before.manifest_text) return kKindNames[kind] + ": after manifest.json";
  return kKindNames[kind] + (killed.tmp_paths.empty() ? ": outside a download" : ": inside a download or staging");
}

// The end of what a run printed, enough to tell its failure.
std::string tail(const ProcessResult& r) {
  const std::string text = r.out + r.err;
  return text.size() > 600 ? "..." + text.substr(text.size() - 600) : text;
}

}  // namespace

int main(int argc, char** argv) {
  int trials = 20;
  std::uint32_t seed = std::random_device{}();
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string arg = argv[i];
    if (arg == "--trials") trials = std::atoi(argv[i + 1]);
    else if (arg == "--seed") seed = static_cast<std::uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
    else trials = -1;  // not an option: the usage below
  }
  if (argc % 2 == 0 || trials < 0) {
    std::cerr << "usage: qmsync_crash_trials [--trials N] [--seed S]\n";
    return 2;
  }
  std::cout << "seed " << seed << std::endl;
  std::mt19937 rng(seed);
  TempDir tmp;
  const std::string data_dir = tmp / "data";
  make_dirs(data_dir);
  ServedWorld world(seed, 4, 24);
  // Quarter-MiB chunks: the large files come down in several ranges each.
  const std::vector<std::string> env = {"QUILLMARSH_SYNC_HTTP_CHUNK_BYTES=262144"};
  // A run of `command` to its end; a failure adds a problem.
  const auto run = [&](const std::vector<std::string>& command, const std::string& what,
                       std::vector<std::string>& problems) {
    const ProcessResult r = run_process(world.client(data_dir, command), tmp / "run", env, 120);
    if (r.exit_code) problems.push_back(what + " failed with exit " + std::to_string(r.exit_code) + ": " + tail(r));
  };
  std::vector<std::string> first;
  run({"sync"}, "the first sync", first);
  if (!first.empty()) return std::cerr << first[0] << "\n", 1;

  std::map<std::string, int> points;
  int violations = 0;
  // How long after its start a run is killed, at most, per kind; it adapts
  // so that most runs die somewhere inside their work.
  double reach_s[] = {1.0, 1.0, 2.0};
  // One run of `kind`, killed at random or, with `stop_at`, at that named
  // place, then run again; what the kill left and what the next run made of
  // it are checked.
  const auto trial = [&](int index, Kind kind, const std::optional<std::string>& stop_at) {
    const Published old = world.current();
    std::vector<std::string> command = {kKindNames[kind]};
    std::vector<std::string> likely_fetched;
    if (kind == kSync) world.publish_next_version(1 + static_cast<int>(rng() % 3));
    if (kind == kTransition) command.push_back(std::to_string(world.publish_next_era().era));
    if (kind == kRepair) {
      // A few files flipped, cut to half or gone.
      std::vector<std::string> paths;
      for (const auto& [path, bytes] : old.files) paths.push_back(path);
      for (int n = 1 + static_cast<int>(rng() % 4); n > 0; --n) {
        const std::string path = paths[rng() % paths.size()];
        if (std::ranges::find(command, path) != command.end()) continue;
        command.push_back(path);
        std::string bytes = old.files.at(path);
        const unsigned how = bytes.empty() ? 2 : rng() % 3;
        if (how == 0) bytes[rng() % bytes.size()] ^= 0x20;
        if (how == 1) bytes.resize(bytes.size() / 2);
        if (how == 2) remove_file(data_dir + "/" + path);
        else write_file(data_dir + "/" + path, bytes);
      }
      likely_fetched.assign(command.begin() + 1, command.end());
    }
    const Published target = world.current();
    for (const auto& [path, bytes] : target.files) {
      if (kind != kRepair && (!old.files.contains(path) || old.files.at(path) != bytes)) likely_fetched.push_back(path);
    }
    const DiskState before = snapshot(data_dir);
    std::vector<std::string> problems;
    std::optional<int> ended;
    double kill_after_s = 0;
    if (stop_at) {
      // The run stops itself at the named place; no faults, so that it gets there.
      std::vector<std::string> stopping = env;
      stopping.push_back("QMSYNC_STOP_AT=" + *stop_at);
      const ProcessResult r = run_process(world.client(data_dir, command), tmp / "killed", stopping, 120);
      if (r.exit_code != 128 + SIGKILL) {
        problems.push_back("never reached the stop point (exit " + std::to_string(r.exit_code) + "): " + tail(r));
      }
    } else {
      spoil_responses(world, target, likely_fetched, rng);
      kill_after_s = std::uniform_real_distribution<double>(0, reach_s[kind])(rng);
      Child child(world.client(data_dir, command), tmp / "killed.out", tmp / "killed.err", env);
      ended = child.wait_for(kill_after_s);
      if (!ended) child.kill_now();
      reach_s[kind] *= ended ? 0.9 : 1.03;
    }
    const DiskState killed = snapshot(data_dir);

    world.store().clear_faults();
    world.api().clear_faults();
    run(command, "the next run", problems);
    run({"verify"}, "verify after the next run", problems);
    const DiskState after = snapshot(data_dir);

    for (std::string& p : broken_promises(killed, before, after, {old, target})) problems.push_back(std::move(p));
    for (std::string& p : convergence_failures(after, target)) problems.push_back("after the next run: " + p);
    const std::string point = stop_at ? "stopped at " + *stop_at
                              : ended ? kKindNames[kind] + ": ran to its end (exit " + std::to_string(*ended) + ")"
                                      : kill_point(kind, killed, before);
    ++points[point];
    for (const std::string& p : problems) {
      std::cout << "VIOLATION trial " << index << " (" << point << ", killed after " << kill_after_s << " s): " << p
                << std::endl;
    }
    violations += static_cast<int>(problems.size());
  };

  // First the windows a random kill seldom hits, each once; then random kills.
  const std::pair<Kind, const char*> named[] = {
      {kSync, "sync: after manifest.json"},
      {kSync, "sync: after the hash cache"},
      {kTransition, "transition: a staged file renamed"},
      {kTransition, "transition: before manifest.json"},
      {kTransition, "transition: after manifest.json"},
  };
  int index = 0;
  for (const auto& [kind, name] : named) trial(index++, kind, name);
  for (int n = 0; n < trials; ++n, ++index) trial(index, static_cast<Kind>(n % 3), std::nullopt);

  std::cout << "trials: " << index << " (" << std::size(named) << " at named places)" << "\nkill points:\n";
  for (const auto& [point, count] : points) std::cout << "  " << point << ": " << count << "\n";
  std::cout << "violations: " << violations << std::endl;
  return violations == 0 ? 0 : 1;
}
