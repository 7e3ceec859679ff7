// Hashing and atomic replacement of files.
#ifndef QUILLMARSH_SYNC_ENGINE_FILE_PRIMITIVES_H_
#define QUILLMARSH_SYNC_ENGINE_FILE_PRIMITIVES_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace quillmarsh::sync {

// Incremental SHA-256, for content that arrives in pieces.
class Sha256Hasher {
 public:
  Sha256Hasher();
  ~Sha256Hasher();
  Sha256Hasher(const Sha256Hasher&) = delete;
  Sha256Hasher& operator=(const Sha256Hasher&) = delete;

  void update(std::string_view data);
  // 64 lower-case hexadecimal digits; the hasher is finished afterwards.
  std::string hexdigest();

 private:
  struct Context;
  std::unique_ptr<Context> ctx_;
};

// SHA-256 of `data` as 64 lower-case hexadecimal digits.
std::string _sha256(std::string_view data);

// SHA-256 of a file's content, read `chunk_bytes` at a time so that only one
// chunk is ever in memory. A file that cannot be opened or read fails with
// OSError (FileNotFoundError when missing).
std::string _sha256_file(const std::string& filepath, std::size_t chunk_bytes = 0);

// Writes `data` to "{filepath}.tmp" and renames it over `filepath`, creating
// missing parent directories. Readers see the old content or the new, never
// a part; there is deliberately no flush to stable storage.
void _atomic_write(const std::string& filepath, std::string_view data);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_FILE_PRIMITIVES_H_
