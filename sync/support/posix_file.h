// Every POSIX file call the component makes goes through here, so that error
// reporting is uniform: a failing call raises OSError (FileNotFoundError for
// ENOENT) with "[Errno N] reason: 'path'".
#ifndef QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_
#define QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

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

// The whole content of a file.
std::string read_file(const std::string& path);
// Creates or truncates `path` and writes `data` whole. No fsync.
void write_file(const std::string& path, std::string_view data);
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
};
// stat(2), following symbolic links.
FileStat stat_path(const std::string& path);
bool path_exists(const std::string& path);

// Joins like a shell would: an absolute `b` replaces `a`.
std::string join_path(std::string_view a, std::string_view b);
// Everything before the last "/" ("" for a bare name, "/" for a root entry).
std::string dir_name(std::string_view path);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_POSIX_FILE_H_
