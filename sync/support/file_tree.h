// Walking and removing directory trees. Neither ever follows a symbolic link
// into a directory: a link planted inside a data directory may itself go,
// but nothing outside the tree is reached through it.
#ifndef QUILLMARSH_SYNC_SUPPORT_FILE_TREE_H_
#define QUILLMARSH_SYNC_SUPPORT_FILE_TREE_H_

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmarsh::sync {

// As remove_tree (posix_file.h), but removes what it can and never fails.
void remove_tree_ignoring_errors(const std::string& path);

// Paths relative to `root` ("a/b.txt") of every entry below it that is not a
// directory, top-down, each directory's files in listing order. A directory
// is entered only when `descend(name)` is true; a link to a directory is
// neither entered nor listed. Unreadable directories are passed over.
std::vector<std::string> walk_files(const std::string& root,
                                    const std::function<bool(std::string_view name)>& descend);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_FILE_TREE_H_
