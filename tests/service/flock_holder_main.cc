// Holds a data directory's cross-process sync lock on behalf of a test that
// runs in another process:
//
//   qmsync_flock_holder DATA_DIR SERVER_URL SIGNAL_DIR
//
// Takes the lock, creates SIGNAL_DIR/held, waits for SIGNAL_DIR/release,
// creates SIGNAL_DIR/released and only then lets the lock go, so the test
// can tell whether anything got the lock before this process gave it up.
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"

int main(int argc, char** argv) {
  using namespace quillmarsh::sync;
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s DATA_DIR SERVER_URL SIGNAL_DIR\n", argv[0]);
    return 2;
  }
  const std::string signals = argv[3];
  try {
    auto manager = SyncManager::create(argv[1], argv[2], [] { return std::string("holder-token"); });
    manager->_acquire_flock();
    write_file(signals + "/held", "");
    // Bounded, so a test that died first does not leave this process behind.
    for (int i = 0; i < 6000 && !path_exists(signals + "/release"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!path_exists(signals + "/release")) return 3;
    write_file(signals + "/released", "");
    manager->_release_flock();
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qmsync_flock_holder: %s\n", e.what());
    return 1;
  }
}
