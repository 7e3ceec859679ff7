// The tag of the platform this process runs on, which module files in a
// manifest name in their "platform".
#ifndef QUILLMARSH_SYNC_ENGINE_PLATFORM_H_
#define QUILLMARSH_SYNC_ENGINE_PLATFORM_H_

#include <string>
#include <string_view>

namespace quillmarsh::sync {

// Maps an operating system name and machine name (any case) to a tag such
// as "linux_x86_64"; an unknown pair gives "{system}_{machine}" in lower case.
std::string _detect_platform(std::string_view system, std::string_view machine);
// The tag of this machine, from uname(2).
std::string _detect_platform();

// Computed once when the library loads.
extern const std::string CURRENT_PLATFORM;

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_PLATFORM_H_
