#include "sync/support/stop_point.h"

#ifdef QMSYNC_STOP_POINTS
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace quillmarsh::sync {

void stop_point(std::string_view name) {
  static const std::string wanted = [] {
    const char* value = std::getenv("QMSYNC_STOP_AT");
    return std::string(value ? value : "");
  }();
  if (!wanted.empty() && name == wanted) ::kill(::getpid(), SIGKILL);
}

}  // namespace quillmarsh::sync
#endif
