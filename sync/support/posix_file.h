// Every POSIX file call the component makes goes through here, so that error
// reporting is uniform: a failing call raises OSError (FileNotFoundError for
// ENOENT) with "[Errno N] reason: 'path'".
#ifndef QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_
#define QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmarsh::sync {

[[noreturn]] void raise_os_error(int error_number, std::string_view path);

// A file open for reading; closed when it goes.
class ReadableFile {
 public:
  explicit ReadableFile(const std::string& path);
  ~ReadableFile();
  ReadableFile(const ReadableFile&) = delete;
  ReadableFile& operator=(const ReadableFile&) = delete;
  // Reads up to `n` bytes; 0 at the end of the file.
  std::size_t read(char* buffer, std::size_t n);
  // The size the file has now.
  std::int64_t size() const;

 private:
  std::string path_;
  int fd_;
};

// A file open for reading and writing at a position the caller moves. The
// open never truncates, and creates the file only when asked. Writes go
// straight to the descriptor, so there is nothing to flush. Closed when it
// goes, if not before.
class DirectoryHandle;
class UpdatableFile {
 public:
  enum Open { existing, create };
  explicit UpdatableFile(const std::string& path, Open how = existing);
  // `name` in the directory held by `dir`; `path` names it in failures.
  UpdatableFile(const DirectoryHandle& dir, const std::string& name, const std::string& path, Open how);
  ~UpdatableFile();
  UpdatableFile(const UpdatableFile&) = delete;
  UpdatableFile& operator=(const UpdatableFile&) = delete;
  void seek(std::int64_t offset);
  // Reads up to `n` bytes at the position and moves behind them; 0 at the end.
  std::size_t read(char* buffer, std::size_t n);
  // Writes all of `data` at the position and moves behind it.
  void write(std::string_view data);
  // Cuts the file off at the position.
  void truncate();
  // Raises on a failing close; later calls do nothing.
  void close();

 private:
  std::string path_;
  int fd_;
};

// The whole content of a file.
// `spare` bytes of capacity stay free past the end, for readers that need
// padding behind the text.
std::string read_file(const std::string& path, std::size_t spare = 0);
// Creates or truncates `path` and writes `data` whole. No fsync.
void write_file(const std::string& path, std::string_view data);
// As write_file, but a file it creates is readable by its owner alone.
void write_private_file(const std::string& path, std::string_view data);
// Up to `n` bytes of `path` from `offset`; fewer only at the end of the file.
std::string read_file_range(const std::string& path, std::int64_t offset, std::size_t n);
// Atomic rename over whatever stands at `to`.
void rename_file(const std::string& from, const std::string& to);
// Creates `path` and its parents; an existing directory is fine.
void make_dirs(const std::string& path);
// Unlinks a file; returns false when there was nothing to remove.
bool remove_file(const std::string& path);

struct FileStat {
  std::int64_t size = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t ctime_ns = 0;
  std::uint64_t inode = 0;
  bool is_dir = false;
  bool is_regular = false;
  bool is_link = false;
};
// stat(2), following symbolic links.
FileStat stat_path(const std::string& path);
// lstat(2): the link itself where `path` names one. Absent when nothing is
// there, or a component on the way is no directory; OSError otherwise.
std::optional<FileStat> lstat_path(const std::string& path);

// A directory held open so that the names in it are looked up from it, not
// along the whole path each time. Holds nothing when `path` cannot be opened
// as a directory. In each call, `full_path` names the file in failures.
class DirectoryHandle {
 public:
  DirectoryHandle() = default;
  explicit DirectoryHandle(const std::string& path);
  ~DirectoryHandle();
  DirectoryHandle(const DirectoryHandle&) = delete;
  DirectoryHandle& operator=(const DirectoryHandle&) = delete;
  DirectoryHandle(DirectoryHandle&& other) noexcept;
  DirectoryHandle& operator=(DirectoryHandle&& other) noexcept;
  bool is_open() const { return fd_ >= 0; }
  // Whether the open failed as nothing is there (or a component on the way
  // is no directory): then nothing can be found below it either.
  bool is_missing() const { return missing_; }
  // lstat_path(path + "/" + name) for the directory held.
  std::optional<FileStat> lstat_at(const std::string& name, const std::string& full_path) const;
  // stat_path(path + "/" + name) for the directory held.
  FileStat stat_at(const std::string& name, const std::string& full_path) const;
  // rename_file between two names of the directory held.
  void rename_at(const std::string& from, const std::string& to, const std::string& full_path) const;

 private:
  friend class UpdatableFile;
  int fd_ = -1;
  bool missing_ = false;
};
bool path_exists(const std::string& path);

bool is_directory(const std::string& path);
// Every entry at any depth below `dir` whose name satisfies `match`, found
// without following symbolic links. Unreadable directories are skipped.
std::vector<std::string> find_entries(const std::string& dir,
                                      const std::function<bool(std::string_view name)>& match);
// Bytes available to an unprivileged writer on the file system of `path`.
std::int64_t free_space_bytes(const std::string& path);
// The modification time of `path` in nanoseconds (following links).
std::int64_t mtime_ns(const std::string& path);

// The advisory whole-file lock that processes sharing a directory take.
// Opens (creating, never truncating) the lock file.
int open_lock_file(const std::string& path);
void lock_exclusive(int fd, const std::string& path);  // blocks
void unlock(int fd, const std::string& path);
// Whether `path` still names the file open at `fd` (same device and inode);
// false when the path is gone, OSError when it cannot be looked at.
bool names_same_file(int fd, const std::string& path);
void close_file(int fd, const std::string& path);

// Joins like a shell would: an absolute `b` replaces `a`.
std::string join_path(std::string_view a, std::string_view b);
// Everything before the last "/" ("" for a bare name, "/" for a root entry).
std::string dir_name(std::string_view path);

// The names of the entries of `dir`, "." and ".." left out, sorted. OSError
// when it cannot be listed.
std::vector<std::string> list_directory(const std::string& dir);
// The summed sizes of the regular files at or below `path`. A link to a file
// counts by its target's size (nothing when dangling); a link to a directory
// is never followed. OSError when a directory cannot be read or an entry's
// own stat fails.
std::int64_t tree_file_bytes(const std::string& path);
// Removes `path` and, for a directory, everything below it, stopping at the
// first failure with OSError (what went stays gone). A link is removed, never
// what it points to.
void remove_tree(const std::string& path);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_
