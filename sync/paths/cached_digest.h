// The digest cache in memory: one entry per manifest path, and the text form
// of the file that keeps it between processes.
#ifndef QUILLMARSH_SYNC_PATHS_CACHED_DIGEST_H_
#define QUILLMARSH_SYNC_PATHS_CACHED_DIGEST_H_

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// One file's entry. Nearly every entry has the shape this component writes
// (four integers and a SHA-256 digest in lower-case hex) and is kept as
// those values, the digest as its 32 bytes. Any other entry, which only a
// hand-edited file holds, is kept as the JSON it was, members in key order.
struct CachedDigest {
  CachedDigest() = default;
  // The written shape when `sha256` is a digest in lower-case hex.
  CachedDigest(std::int64_t size_bytes, std::int64_t mtime_ns, std::int64_t ctime_ns, std::int64_t inode,
               std::string_view sha256);
  // Kept as values when `entry` has the written shape, else as it stands.
  explicit CachedDigest(Json entry);

  std::int64_t size_bytes = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t inode = 0;
  std::array<std::uint8_t, 32> digest{};
  std::shared_ptr<const Json> other;  // the entry of another shape; null for the written one

  // The digest as the file spells it; for an entry of another shape, its
  // "sha256" when that is text, else "".
  std::string sha256() const;
  // Whether the written shape's digest is `sha256`, spelled in lower-case hex.
  bool has_digest(std::string_view sha256) const;

  // The entry as JSON, members in key order.
  Json json() const;
  // Appends the entry's text, as json_text of json() gives it.
  void append_text(std::string& out) const;
  // The same entry, whichever way each side is kept.
  bool operator==(const CachedDigest& that) const;
};

struct PathHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
};
// Path -> entry; looked up by a path's view, without a copy of it.
using DigestCache = std::unordered_map<std::string, CachedDigest, PathHash, std::equal_to<>>;

// The cache of a file's text when every entry in it has the written shape
// and the document is exactly {"files": {...}, "version": `version`};
// absent for anything else, which the general reader then judges.
// Read with kJsonReadPadding spare, `text` is parsed where it lies. Once
// parsed, the text is not needed and is released: `text` is left empty
// whenever the document parsed, taken or not.
std::optional<DigestCache> read_written_digest_cache(std::string& text, std::int64_t version);

// The file's text: {"files": {path: entry, ...}, "version": N}, paths in
// byte order.
std::string digest_cache_text(const DigestCache& cache, std::int64_t version);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_PATHS_CACHED_DIGEST_H_
