#include "sync/engine/platform.h"

#include <sys/utsname.h>

#include "sync/support/text.h"

namespace quillmarsh::sync {

std::string _detect_platform(std::string_view system_name, std::string_view machine_name) {
  const std::string system = ascii_lower(system_name);
  const std::string machine = ascii_lower(machine_name);
  const bool x86_64 = machine == "x86_64" || machine == "amd64";
  const bool arm64 = machine == "aarch64" || machine == "arm64";
  if (system == "linux" && x86_64) return "linux_x86_64";
  if (system == "linux" && arm64) return "linux_aarch64";
  if (system == "darwin" && x86_64) return "macos_x86_64";
  if (system == "darwin" && arm64) return "macos_arm64";
  // Windows reports amd64 whatever the machine, on purpose.
  if (system == "windows") return "windows_amd64";
  return system + "_" + machine;
}

std::string _detect_platform() {
  struct utsname names;
  if (::uname(&names) != 0) return _detect_platform("", "");
  return _detect_platform(names.sysname, names.machine);
}

const std::string CURRENT_PLATFORM = _detect_platform();

}  // namespace quillmarsh::sync
