// What a data directory holds, seen from outside the process that wrote it,
// and the promises it must keep however that process ended.
#ifndef QUILLMARSH_SYNC_TESTS_CRASH_DISK_STATE_H_
#define QUILLMARSH_SYNC_TESTS_CRASH_DISK_STATE_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/crash/served_world.h"

namespace quillmarsh::sync::testing {

// A snapshot of a data directory: every regular file by relative path, with
// its digest, and the state files' bytes.
struct DiskState {
  std::map<std::string, std::string> digests;  // relative path -> sha256 of the bytes
  std::vector<std::string> tmp_paths;          // names ending in ".tmp", files or directories
  std::optional<std::string> manifest_text;
  std::optional<std::string> seed;
  std::optional<std::string> seed_meta_text;
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

#endif  // QUILLMARSH_SYNC_TESTS_CRASH_DISK_STATE_H_
