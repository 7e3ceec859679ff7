#include "sync/support/file_tree.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "sync/support/posix_file.h"

namespace quillmarsh::sync {
namespace {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using DirHandle = std::unique_ptr<DIR, DirCloser>;

// What can be listed of `dir`; nothing when it cannot be opened.
std::vector<std::string> entry_names(const std::string& dir) {
  std::vector<std::string> names;
  DirHandle handle(::opendir(dir.c_str()));
  if (!handle) return names;
  while (const dirent* entry = ::readdir(handle.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return names;
}

}  // namespace

// lstat, so that a link is judged as the link itself.
void remove_tree_ignoring_errors(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    for (const std::string& name : entry_names(path)) remove_tree_ignoring_errors(join_path(path, name));
    ::rmdir(path.c_str());
    return;
  }
  ::unlink(path.c_str());
}

std::vector<std::string> walk_files(const std::string& root,
                                    const std::function<bool(std::string_view name)>& descend) {
  std::vector<std::string> files;
  // Relative directory paths still to visit, in top-down order.
  std::vector<std::string> pending{""};
  for (std::size_t next = 0; next < pending.size(); ++next) {
    const std::string relative_dir = pending[next];
    const std::string dir = relative_dir.empty() ? root : join_path(root, relative_dir);
    for (const std::string& name : entry_names(dir)) {
      const std::string relative = relative_dir.empty() ? name : relative_dir + "/" + name;
      struct stat st;
      if (::lstat(join_path(dir, name).c_str(), &st) != 0) continue;
      if (S_ISDIR(st.st_mode)) {
        if (descend(name)) pending.push_back(relative);
        continue;
      }
      // A link to a directory is a directory to the walk, never entered.
      struct stat target;
      if (S_ISLNK(st.st_mode) && ::stat(join_path(dir, name).c_str(), &target) == 0 && S_ISDIR(target.st_mode)) {
        continue;
      }
      files.push_back(relative);
    }
  }
  return files;
}

}  // namespace quillmarsh::sync
