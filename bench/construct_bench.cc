// Opens a data directory the way every qmsync client command does, and does
// nothing else: builds a SyncManager with the arguments the command line
// would pass, prints how many files its manifest lists, and exits. Timed from
// outside (bench/idle_bench.sh), it is the fixed cost that sync, needs-sync
// and verify all pay before their own work starts: reading manifest.json,
// the hash cache and the vocabularies.
//
//   bench_construct --data-dir DIR --server URL --token-file PATH [--ca-file PEM]
//
// No server is contacted; the URL and token are only checked and kept.
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "sync/engine/curl_session.h"
#include "sync/support/posix_file.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace qs = quillmarsh::sync;

int main(int argc, char** argv) {
  std::string data_dir, server, token_file;
  std::optional<std::string> ca_file;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--data-dir") data_dir = argv[i + 1];
    else if (flag == "--server") server = argv[i + 1];
    else if (flag == "--token-file") token_file = argv[i + 1];
    else if (flag == "--ca-file") ca_file = argv[i + 1];
    else {
      std::fprintf(stderr, "bench_construct: unknown option %s\n", flag.c_str());
      return 2;
    }
  }
  if (data_dir.empty() || server.empty() || token_file.empty()) {
    std::fprintf(stderr, "usage: bench_construct --data-dir DIR --server URL --token-file PATH [--ca-file PEM]\n");
    return 2;
  }
  try {
    // The command line loads the extra CA before it opens the directory, so
    // its cost belongs to what every command pays.
    if (ca_file) qs::set_extra_ca_file(*ca_file);
    // Read once now as the command line does, then afresh at each request.
    if (qs::strip(qs::read_file(token_file)).empty()) {
      std::fprintf(stderr, "bench_construct: token file %s is empty\n", token_file.c_str());
      return 2;
    }
    auto token = [token_file] { return std::string(qs::strip(qs::read_file(token_file))); };
    const auto manager = qs::SyncManager::create(data_dir, server, token);
    // A manifest that failed to load is only logged and leaves a manager that
    // is quick to build; the count lets the caller see that one was read.
    const std::shared_ptr<qs::Manifest> manifest = manager->get_manifest();
    // Counted from the decoded entries: asking for the JSON would build it,
    // which opening a directory does not.
    std::printf("%zu\n", manifest ? manifest->entries().size() : std::size_t{0});
  } catch (const std::exception& e) {
    std::fprintf(stderr, "bench_construct: %s\n", e.what());
    return 1;
  }
  return 0;
}
