// An evolving data set that the product's publisher publishes into a root
// the test server serves, for the runs that drive qmsync as real processes
// (the server's faults and its record of requests are the runs' to use); and
// what a data directory holds, seen from outside the process that wrote it,
// with the promises it must keep however that process ended.
#ifndef QUILLMARSH_SYNC_TESTS_CRASH_CRASH_WORLD_H_
#define QUILLMARSH_SYNC_TESTS_CRASH_CRASH_WORLD_H_

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/sample_data.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_server.h"

namespace quillmarsh::sync::testing {

// One published version and the bytes behind it.
struct Published {
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::map<std::string, std::string> files;  // manifest path -> bytes, vocabularies included
  std::string seed;                          // the era's shuffle seed

  // Where the store holds the files.
  std::string prefix() const { return "/era_" + std::to_string(era); }
};

class ServedWorld {
 public:
  // `large_files` of 1 to 2 MiB and `small_files` of up to 40 KiB, plus an
  // empty file and two vocabularies, published as era 1, version 1.
  ServedWorld(std::uint32_t seed, int large_files, int small_files);

  // One thread publishes at a time; the runs only read what it served.
  // A new version of the current era: one data file dropped and
  // `added_files` new ones, about a quarter of them large.
  Published publish_next_version(int added_files);
  // Version 1 of the next era, with new bytes for about half the files,
  // made the era served.
  Published publish_next_era();

  const Published& current() const { return current_; }
  TestServer& api() { return api_; }
  TestServer& store() { return store_; }

  // Arguments of a qmsync client command against this world.
  std::vector<std::string> client(const std::string& data_dir, std::vector<std::string> command) const;

 private:
  std::string fresh_bytes(std::size_t n) { return pseudo_random_bytes(n, rng_()); }
  Published publish(Published p);

  TempDir tmp_;
  TestServer api_;
  TestServer store_;
  std::mt19937 rng_;
  int next_file_ = 0;
  Published current_;
};

// A snapshot of a data directory: every regular file by relative path, with
// its digest, and the state files' bytes.
struct DiskState {
  std::map<std::string, std::string> digests;  // relative path -> sha256 of the bytes
  std::vector<std::string> tmp_paths;          // names ending in ".tmp", files or directories
  std::optional<std::string> manifest_text, seed, seed_meta_text;
  // Torn side files, and a hash cache that lies about the files beside it.
  std::vector<std::string> state_problems;

  bool has(const std::string& path) const { return digests.count(path) != 0; }
};

DiskState snapshot(const std::string& data_dir);

// Broken promises of a directory left by a killed process, given what it
// held before (`before`), what it holds once a run has completed from there
// (`after`), and the manifests whose files it may hold. Empty when all hold.
std::vector<std::string> broken_promises(const DiskState& killed, const DiskState& before,
                                         const DiskState& after, const std::vector<Published>& allowed);

// Broken promises of a directory that a completed run brought to `target`.
std::vector<std::string> convergence_failures(const DiskState& after, const Published& target);

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CRASH_CRASH_WORLD_H_
