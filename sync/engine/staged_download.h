// One file's download as its attempts share it: where it comes from and
// goes, and the staging file that carries what arrived from one attempt to
// the next.
#ifndef QUILLMARSH_SYNC_ENGINE_STAGED_DOWNLOAD_H_
#define QUILLMARSH_SYNC_ENGINE_STAGED_DOWNLOAD_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "sync/engine/curl_session.h"
#include "sync/engine/file_primitives.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync {

// What a download needs before its first request.
struct DownloadTarget {
  std::string file_path;  // the manifest's
  std::string url;
  bool public_download = false;
  std::string local_path;
  std::string tmp_path;
  // The directory the file goes to, held open, and the names in it of the
  // file and its staging file, when a batch knows them: each call on the
  // file then looks up one name rather than the whole path. Null otherwise.
  std::shared_ptr<const DirectoryHandle> dir;
  std::string name;
  std::string tmp_name;
  Json expected_sha;
  std::int64_t expected_size = 0;
  Json file_type;
  // The digest cache learns the file: it is in the manager's own data
  // directory, and not a module.
  bool remembered = false;
};

// Where a run of downloads puts its files: local paths resolved once per
// directory they share, and the directory of the files that come next made
// once and held open.
class TargetPlaces {
 public:
  explicit TargetPlaces(std::string_view data_dir) : paths_(data_dir) {}
  ManifestPathResolver& paths() { return paths_; }
  // `dir`, made if missing, and held open; null when it cannot be opened,
  // which leaves its files to whole paths.
  std::shared_ptr<const DirectoryHandle> made_directory(const std::string& dir);

 private:
  ManifestPathResolver paths_;
  std::string last_path_;
  std::shared_ptr<const DirectoryHandle> last_;
};

// The staging file, opened for one attempt: whatever an earlier attempt
// (or call) left is kept and hashed again, so that the next request goes
// on behind it. Bodies stream in through `sink`, hashed as they come and
// written in batches that still fit the CPU's cache.
class StagedFile {
 public:
  StagedFile(const DownloadTarget& target, std::atomic<std::int64_t>& arrived);
  StagedFile(const StagedFile&) = delete;
  StagedFile& operator=(const StagedFile&) = delete;

  // Bytes staged when the attempt began; the resume point.
  std::int64_t range_start() const { return range_start_; }
  // Bytes staged now, counting those not yet written.
  std::int64_t total_written() const { return total_written_; }

  // Where one exchange's body goes: a 206, when `take_206`, goes on at the
  // staged end; a 200, when `take_200`, is the whole file and replaces what
  // was staged. Any other answer stays in memory. Valid while this lives.
  BodySink sink(bool take_206, bool take_200, std::int64_t expected_size);
  // Writes what arrived and is not on disk yet.
  void flush();
  // After a failed exchange: what arrived before the failure is staged all
  // the same, so that no attempt fetches it again; a write failing here loses
  // nothing but bytes (the next attempt reads back the staging file).
  void flush_after_failure() noexcept;
  // A wrong digest leaves nothing worth resuming from.
  void discard();
  void close() { fh_.close(); }
  std::string hexdigest() { return h_->hexdigest(); }

 private:
  UpdatableFile fh_;
  std::atomic<std::int64_t>& arrived_;
  std::unique_ptr<Sha256Hasher> h_ = std::make_unique<Sha256Hasher>();
  std::int64_t total_written_ = 0;
  std::int64_t range_start_ = 0;
  std::string pending_;  // arrived and hashed, not yet written
};

// Whether a file of `expected_size` bytes comes in ranged chunks rather
// than by one whole-file GET.
inline bool comes_in_chunks(std::int64_t expected_size, std::int64_t chunk_bytes) {
  return expected_size > chunk_bytes;
}

// Whether the digest of what was staged is the one the manifest gives
// (always, when it gives none).
bool staged_digest_fits(const DownloadTarget& target, const std::string& actual_sha);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_STAGED_DOWNLOAD_H_
