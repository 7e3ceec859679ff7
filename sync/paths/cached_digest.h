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
#include <utility>
#include <vector>

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

// Path -> entry, for the paths of one data directory.
//
// A cache of a hundred thousand entries is read at every start and asked
// about every file of a pass, so it is kept in the order the file holds
// it: the paths in one buffer and the entries in one array, in byte order
// of their paths, which is also about the order in which a manifest lists
// them. Reading the file appends; a pass finds each entry next to the last
// one found. A path first set since the file was read is kept apart until
// the next write puts it in its place. Not safe for concurrent use, finding
// included: the owner holds its lock.
class DigestCache {
 public:
  // The entry of `path`; null when there is none. Valid until the next set
  // or clear.
  const CachedDigest* find(std::string_view path);
  // Makes `entry` the entry of `path`; false when it was that already.
  bool set(std::string_view path, CachedDigest entry);
  // The entry of `path`; std::out_of_range when there is none.
  const CachedDigest& at(std::string_view path);
  std::size_t size() const { return sorted_.size() + added_.size(); }
  bool empty() const { return size() == 0; }
  void clear();
  // Every path with its entry, in byte order of the paths.
  std::vector<std::pair<std::string_view, const CachedDigest*>> sorted() const;
  bool operator==(const DigestCache& that) const;

 private:
  friend std::optional<DigestCache> read_written_digest_cache(std::string& text, std::int64_t version);
  struct Slot {
    std::size_t path_offset;
    std::size_t path_size;
    CachedDigest entry;
  };
  struct PathHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view path) const { return std::hash<std::string_view>{}(path); }
  };
  std::string_view path_of(const Slot& slot) const { return {paths_.data() + slot.path_offset, slot.path_size}; }
  Slot* find_sorted(std::string_view path);
  // Appends while paths arrive in byte order; puts the array in order, the
  // last of each repeated path kept, once they do not.
  void append(std::string_view path, CachedDigest entry);
  void finish_reading();

  std::string paths_;
  std::vector<Slot> sorted_;
  bool in_order_ = true;
  std::size_t next_ = 0;  // where the next look-up starts
  std::unordered_map<std::string, CachedDigest, PathHash, std::equal_to<>> added_;
};

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
