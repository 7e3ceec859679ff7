#include "sync/support/posix_file.h"

#include <algorithm>
#include <utility>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <dirent.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "sync/errors.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync {

void raise_os_error(int error_number, std::string_view path) {
  const std::string message = "[Errno " + std::to_string(error_number) + "] " +
                              std::strerror(error_number) + ": " + quoted(path);
  if (error_number == ENOENT) throw FileNotFoundError(error_number, message);
  throw OSError(error_number, message);
}

ReadableFile::ReadableFile(const std::string& path) : path_(path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) raise_os_error(errno, path);
}

ReadableFile::~ReadableFile() { ::close(fd_); }

std::size_t ReadableFile::read(char* buffer, std::size_t n) {
  for (;;) {
    const ssize_t got = ::read(fd_, buffer, n);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) raise_os_error(errno, path_);
  }
}

std::int64_t ReadableFile::size() const {
  struct stat st;
  if (::fstat(fd_, &st) != 0) raise_os_error(errno, path_);
  return st.st_size;
}

UpdatableFile::UpdatableFile(const std::string& path, Open how) : path_(path) {
  fd_ = how == create ? ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)
                      : ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) raise_os_error(errno, path);
}

UpdatableFile::UpdatableFile(const DirectoryHandle& dir, const std::string& name, const std::string& path, Open how)
    : path_(path) {
  fd_ = how == create ? ::openat(dir.fd_, name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)
                      : ::openat(dir.fd_, name.c_str(), O_RDWR | O_CLOEXEC);
  if (fd_ < 0) raise_os_error(errno, path);
}

std::size_t UpdatableFile::read(char* buffer, std::size_t n) {
  for (;;) {
    const ssize_t got = ::read(fd_, buffer, n);
    if (got >= 0) return static_cast<std::size_t>(got);
    if (errno != EINTR) raise_os_error(errno, path_);
  }
}

UpdatableFile::~UpdatableFile() {
  if (fd_ >= 0) ::close(fd_);
}

void UpdatableFile::seek(std::int64_t offset) {
  if (::lseek(fd_, offset, SEEK_SET) < 0) raise_os_error(errno, path_);
}

void UpdatableFile::write(std::string_view data) {
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t put = ::write(fd_, data.data() + done, data.size() - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      raise_os_error(errno, path_);
    }
    done += static_cast<std::size_t>(put);
  }
}

void UpdatableFile::truncate() {
  const off_t here = ::lseek(fd_, 0, SEEK_CUR);
  if (here < 0 || ::ftruncate(fd_, here) != 0) raise_os_error(errno, path_);
}

void UpdatableFile::close() {
  if (fd_ < 0) return;
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) raise_os_error(errno, path_);
}

std::string read_file(const std::string& path, std::size_t spare) {
  ReadableFile file(path);
  std::string out;
  // Sized once: a large state file is read without the copies of growing.
  out.reserve(static_cast<std::size_t>(std::max<std::int64_t>(file.size(), 0)) + spare);
  const auto room = [&] { return out.capacity() - spare; };
  for (;;) {
    if (out.size() >= room()) {
      // Full as sized: most often the end, seen by a read into a buffer;
      // a file that grew meanwhile makes room for more.
      char probe[65536];
      const std::size_t got = file.read(probe, sizeof probe);
      if (got == 0) return out;
      out.reserve(2 * out.capacity() + spare);
      out.append(probe, got);
      continue;
    }
    const std::size_t at = out.size();
    out.resize(room());
    const std::size_t got = file.read(out.data() + at, out.size() - at);
    out.resize(at + got);
    if (got == 0) return out;
  }
}

namespace {

void write_whole_file(const std::string& path, std::string_view data, mode_t mode) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) raise_os_error(errno, path);
  std::size_t done = 0;
  while (done < data.size()) {
    const ssize_t put = ::write(fd, data.data() + done, data.size() - done);
    if (put < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      raise_os_error(err, path);
    }
    done += static_cast<std::size_t>(put);
  }
  if (::close(fd) != 0) raise_os_error(errno, path);
}

}  // namespace

void write_file(const std::string& path, std::string_view data) { write_whole_file(path, data, 0666); }

void write_private_file(const std::string& path, std::string_view data) { write_whole_file(path, data, 0600); }

std::string read_file_range(const std::string& path, std::int64_t offset, std::size_t n) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) raise_os_error(errno, path);
  std::string out(n, '\0');
  std::size_t done = 0;
  while (done < n) {
    const ssize_t got = ::pread(fd, out.data() + done, n - done, static_cast<off_t>(offset) + static_cast<off_t>(done));
    if (got < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      raise_os_error(err, path);
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  ::close(fd);
  out.resize(done);
  return out;
}

void rename_file(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) raise_os_error(errno, from);
}

void make_dirs(const std::string& path) {
  if (path.empty()) return;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return;
    raise_os_error(EEXIST, path);
  }
  const std::string parent = dir_name(path);
  if (!parent.empty() && parent != path) make_dirs(parent);
  if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) raise_os_error(errno, path);
}

bool remove_file(const std::string& path) {
  if (::unlink(path.c_str()) == 0) return true;
  if (errno == ENOENT) return false;
  raise_os_error(errno, path);
}

namespace {

FileStat file_stat_of(const struct stat& st) {
  FileStat out;
  out.size = st.st_size;
  out.mtime_ns = static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  out.ctime_ns = static_cast<std::int64_t>(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
  out.inode = st.st_ino;
  out.is_dir = S_ISDIR(st.st_mode);
  out.is_regular = S_ISREG(st.st_mode);
  out.is_link = S_ISLNK(st.st_mode);
  return out;
}

}  // namespace

FileStat stat_path(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) raise_os_error(errno, path);
  return file_stat_of(st);
}

DirectoryHandle::DirectoryHandle(const std::string& path)
    : fd_(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), missing_(fd_ < 0 && (errno == ENOENT || errno == ENOTDIR)) {}

DirectoryHandle::~DirectoryHandle() {
  if (fd_ >= 0) ::close(fd_);
}

DirectoryHandle::DirectoryHandle(DirectoryHandle&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), missing_(other.missing_) {}

DirectoryHandle& DirectoryHandle::operator=(DirectoryHandle&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    missing_ = other.missing_;
  }
  return *this;
}

FileStat DirectoryHandle::stat_at(const std::string& name, const std::string& full_path) const {
  struct stat st;
  if (::fstatat(fd_, name.c_str(), &st, 0) != 0) raise_os_error(errno, full_path);
  return file_stat_of(st);
}

void DirectoryHandle::rename_at(const std::string& from, const std::string& to, const std::string& full_path) const {
  if (::renameat(fd_, from.c_str(), fd_, to.c_str()) != 0) raise_os_error(errno, full_path);
}

std::optional<FileStat> DirectoryHandle::lstat_at(const std::string& name, const std::string& full_path) const {
  struct stat st;
  if (::fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    raise_os_error(errno, full_path);
  }
  return file_stat_of(st);
}

std::optional<FileStat> lstat_path(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return std::nullopt;
    raise_os_error(errno, path);
  }
  return file_stat_of(st);
}

bool path_exists(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

bool is_directory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::vector<std::string> find_entries(const std::string& dir,
                                      const std::function<bool(std::string_view name)>& match) {
  std::vector<std::string> found;
  std::vector<std::string> pending{dir};
  while (!pending.empty()) {
    const std::string current = std::move(pending.back());
    pending.pop_back();
    DIR* handle = ::opendir(current.c_str());
    if (handle == nullptr) continue;
    while (const dirent* entry = ::readdir(handle)) {
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      const std::string path = join_path(current, name);
      if (match(name)) found.push_back(path);
      bool is_dir = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN) {
        struct stat st;
        is_dir = ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
      }
      if (is_dir) pending.push_back(path);
    }
    ::closedir(handle);
  }
  return found;
}

std::int64_t free_space_bytes(const std::string& path) {
  struct statvfs st;
  if (::statvfs(path.c_str(), &st) != 0) raise_os_error(errno, path);
  return static_cast<std::int64_t>(st.f_bavail) * static_cast<std::int64_t>(st.f_frsize);
}

std::int64_t mtime_ns(const std::string& path) { return stat_path(path).mtime_ns; }

int open_lock_file(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) raise_os_error(errno, path);
  return fd;
}

void lock_exclusive(int fd, const std::string& path) {
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) raise_os_error(errno, path);
  }
}

void unlock(int fd, const std::string& path) {
  if (::flock(fd, LOCK_UN) != 0) raise_os_error(errno, path);
}

bool names_same_file(int fd, const std::string& path) {
  struct stat held;
  if (::fstat(fd, &held) != 0) raise_os_error(errno, path);
  struct stat named;
  if (::stat(path.c_str(), &named) != 0) {
    if (errno == ENOENT) return false;
    raise_os_error(errno, path);
  }
  return held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

void close_file(int fd, const std::string& path) {
  if (::close(fd) != 0) raise_os_error(errno, path);
}

std::string join_path(std::string_view a, std::string_view b) {
  if (!b.empty() && b.front() == '/') return std::string(b);
  if (a.empty()) return std::string(b);
  std::string out(a);
  if (out.back() != '/') out += '/';
  out += b;
  return out;
}

std::string dir_name(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return "";
  std::string_view head = path.substr(0, slash + 1);
  // Trailing slashes of the head go, unless the head is all slashes.
  std::size_t end = head.size();
  while (end > 1 && head[end - 1] == '/') --end;
  return std::string(head.substr(0, end));
}

namespace {

// A directory opened below `parent_fd`. A walk opens each step without
// following a link, so that it never leaves the tree it was given.
class OpenDirectory {
 public:
  OpenDirectory(int parent_fd, const char* name, const std::string& path, bool follow_link = false)
      : path_(path) {
    const int fd = ::openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (follow_link ? 0 : O_NOFOLLOW));
    if (fd < 0) raise_os_error(errno, path);
    handle_ = ::fdopendir(fd);
    if (handle_ == nullptr) {
      const int err = errno;
      ::close(fd);
      raise_os_error(err, path);
    }
  }
  ~OpenDirectory() { ::closedir(handle_); }
  OpenDirectory(const OpenDirectory&) = delete;
  OpenDirectory& operator=(const OpenDirectory&) = delete;

  int fd() const { return ::dirfd(handle_); }

  // Read whole before the caller changes the directory.
  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(handle_);
      if (entry == nullptr) {
        if (errno != 0) raise_os_error(errno, path_);
        return out;
      }
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") out.emplace_back(name);
    }
  }

 private:
  std::string path_;
  DIR* handle_;
};

std::int64_t file_bytes_at(int parent_fd, const char* name, const std::string& path) {
  struct stat st;
  if (::fstatat(parent_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) raise_os_error(errno, path);
  if (S_ISREG(st.st_mode)) return st.st_size;
  if (S_ISLNK(st.st_mode)) {
    struct stat target;
    if (::fstatat(parent_fd, name, &target, 0) == 0) return S_ISREG(target.st_mode) ? target.st_size : 0;
    // A dangling or looping link points at no file.
    if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return 0;
    raise_os_error(errno, path);
  }
  if (!S_ISDIR(st.st_mode)) return 0;
  OpenDirectory dir(parent_fd, name, path);
  std::int64_t total = 0;
  for (const std::string& child : dir.names()) total += file_bytes_at(dir.fd(), child.c_str(), join_path(path, child));
  return total;
}

void remove_tree_at(int parent_fd, const char* name, const std::string& path) {
  struct stat st;
  if (::fstatat(parent_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) raise_os_error(errno, path);
  if (!S_ISDIR(st.st_mode)) {
    if (::unlinkat(parent_fd, name, 0) != 0) raise_os_error(errno, path);
    return;
  }
  {
    OpenDirectory dir(parent_fd, name, path);
    for (const std::string& child : dir.names()) remove_tree_at(dir.fd(), child.c_str(), join_path(path, child));
  }
  if (::unlinkat(parent_fd, name, AT_REMOVEDIR) != 0) raise_os_error(errno, path);
}

}  // namespace

std::vector<std::string> list_directory(const std::string& dir) {
  std::vector<std::string> names = OpenDirectory(AT_FDCWD, dir.c_str(), dir, true).names();
  std::sort(names.begin(), names.end());
  return names;
}

std::int64_t tree_file_bytes(const std::string& path) { return file_bytes_at(AT_FDCWD, path.c_str(), path); }

void remove_tree(const std::string& path) { remove_tree_at(AT_FDCWD, path.c_str(), path); }

}  // namespace quillmarsh::sync
