// Turning a user's path into the absolute, link-free path it stands for.
// The only place that asks the system for links, the working directory and
// home directories.
#ifndef QUILLMARSH_SYNC_SUPPORT_REAL_PATH_H_
#define QUILLMARSH_SYNC_SUPPORT_REAL_PATH_H_

#include <string>
#include <string_view>

namespace quillmarsh::sync {

// Replaces a leading "~" or "~/" with $HOME (the password entry's home when
// HOME is unset) and "~name" with that user's home. A path whose home cannot
// be found is returned unchanged.
std::string expand_user(std::string_view path);

// The absolute path with every symbolic link followed as far as the path
// exists; the missing rest is appended as written, with "." and ".." applied.
// A link loop stops resolution at the looping link. No trailing slash.
// Fails with ValueError on a NUL byte, OSError if the working directory is gone.
std::string resolve_path(std::string_view path);

// resolve_path(resolved_base + "/" + rel), for a `resolved_base` that
// resolve_path gave: the base is not walked again.
std::string resolve_path_below(const std::string& resolved_base, std::string_view rel);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_REAL_PATH_H_
