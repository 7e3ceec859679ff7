// The single downloader: one manifest entry to its final path, streamed into
// a fixed staging file that is also the resume point between attempts.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sync/engine/file_primitives.h"
#include "sync/engine/staged_download.h"
#include "sync/engine/tunables.h"
#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/support/sleep.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// Small enough to come from the heap rather than a fresh mapping: most
// staging files are new and empty, and this is paid once per file.
constexpr std::size_t kRehashPieceBytes = 64 * 1024;
// A TLS record brings at most 16 KiB; writing each alone would cost a system
// call per record. Pieces are hashed as they come and written in batches
// this large, which still fit the CPU's cache.
constexpr std::size_t kWriteBatchBytes = 256 * 1024;

const Json& member(const Json& entry, const char* key) {
  static const Json kNull;
  const auto it = entry.find(key);
  return it == entry.end() ? kNull : *it;
}

// As a message shows a value: text as it is, anything else in printed form.
std::string plain(const Json& value) {
  return value.is_string() ? value.get<std::string>() : quoted_json(value);
}

bool is_retried(const std::exception& e) {
  return dynamic_cast<const SyncError*>(&e) != nullptr || dynamic_cast<const ConnectionError*>(&e) != nullptr;
}

SyncError http_failure(const std::string& file_path, int status) {
  return SyncError("Download failed for " + file_path + ": HTTP " + std::to_string(status));
}

double wait_after(int attempt) { return std::min(0.25 * std::pow(2.0, attempt), 1.0); }

}  // namespace

std::shared_ptr<const DirectoryHandle> TargetPlaces::made_directory(const std::string& dir) {
  if (dir != last_path_) {
    make_dirs(dir);
    last_ = std::make_shared<const DirectoryHandle>(dir);
    if (!last_->is_open()) last_.reset();
    last_path_ = dir;
  }
  return last_;
}

namespace {

UpdatableFile open_staging(const DownloadTarget& target) {
  if (target.dir) return UpdatableFile(*target.dir, target.tmp_name, target.tmp_path, UpdatableFile::create);
  return UpdatableFile(target.tmp_path, UpdatableFile::create);
}

}  // namespace

StagedFile::StagedFile(const DownloadTarget& target, std::atomic<std::int64_t>& arrived)
    : fh_(open_staging(target)), arrived_(arrived) {
  // Reading it through leaves the position at its end. Not zeroed: nearly
  // always the first read finds the file empty.
  const std::unique_ptr<char[]> piece(new char[kRehashPieceBytes]);
  while (const std::size_t got = fh_.read(piece.get(), kRehashPieceBytes)) {
    h_->update(std::string_view(piece.get(), got));
    total_written_ += static_cast<std::int64_t>(got);
  }
  range_start_ = total_written_;
}

BodySink StagedFile::sink(bool take_206, bool take_200, std::int64_t expected_size) {
  // A small file needs no more room than it has bytes.
  const std::int64_t expected_left = expected_size - total_written_;
  pending_.reserve(expected_left > 0 ? std::min<std::size_t>(kWriteBatchBytes, static_cast<std::size_t>(expected_left))
                                     : kWriteBatchBytes);
  BodySink sink;
  sink.accepts = [this, take_206, take_200](int status) {
    if (status == 206) return take_206;
    if (status != 200 || !take_200) return false;
    if (total_written_ > 0) {
      fh_.seek(0);
      fh_.truncate();
    }
    h_ = std::make_unique<Sha256Hasher>();
    total_written_ = 0;
    return true;
  };
  sink.write = [this](std::string_view piece) {
    h_->update(piece);
    pending_.append(piece);
    total_written_ += static_cast<std::int64_t>(piece.size());
    arrived_.fetch_add(static_cast<std::int64_t>(piece.size()), std::memory_order_relaxed);
    if (pending_.size() >= kWriteBatchBytes) flush();
  };
  return sink;
}

void StagedFile::flush() {
  if (pending_.empty()) return;
  fh_.write(pending_);
  pending_.clear();
}

void StagedFile::flush_after_failure() noexcept {
  try {
    flush();
  } catch (const std::exception&) {
  }
}

void StagedFile::discard() {
  fh_.seek(0);
  fh_.truncate();
}

bool staged_digest_fits(const DownloadTarget& target, const std::string& actual_sha) {
  return !is_given(target.expected_sha) || (target.expected_sha.is_string() && target.expected_sha == actual_sha);
}

DownloadTarget SyncManager::_download_target(const std::string& file_path, const Json& file_info,
                                             const std::optional<std::string>& target_data_dir,
                                             TargetPlaces* places) {
  if (!file_info.is_object()) throw TypeError("file entry for " + file_path + " is not a mapping");
  DownloadTarget t;
  t.file_path = file_path;
  Json base_url = member(file_info, "_manifest_base_url");
  if (!is_given(base_url)) base_url = member(file_info, "base_url");
  if (!is_given(base_url)) {
    if (const std::shared_ptr<Manifest> manifest = _manifest.load()) base_url = manifest->base_url;
  }
  t.url = _manifest_file_url(_server_url, file_path, base_url);
  t.public_download = base_url.is_string() && !strip(base_url.get_ref<const std::string&>()).empty();
  const bool other_root = target_data_dir && !target_data_dir->empty();
  if (other_root) places = nullptr;
  t.local_path = places != nullptr ? places->paths().local_path(file_path)
                                   : _manifest_local_path(other_root ? *target_data_dir : _data_dir, file_path);

  t.expected_sha = file_info.contains("sha256") ? file_info["sha256"] : Json("");
  t.expected_size = file_info.contains("size_bytes") ? integer_of(file_info["size_bytes"]) : 0;
  t.file_type = file_info.contains("kind") ? file_info["kind"] : Json("");
  t.tmp_path = t.local_path + ".tmp";
  t.remembered = (!target_data_dir || *target_data_dir == _data_dir) && t.file_type != "vault_module" &&
                 t.file_type != "backtester_module";
  const std::string parent = dir_name(t.local_path);
  if (places != nullptr && !parent.empty()) {
    t.dir = places->made_directory(parent);
    t.name = t.local_path.substr(t.local_path.rfind('/') + 1);
    t.tmp_name = t.name + ".tmp";
  } else if (!parent.empty()) {
    make_dirs(parent);
  }
  return t;
}

void SyncManager::_commit_download(const DownloadTarget& target, StagedFile& staged, const std::string& actual_sha,
                                   SyncResult& result) {
  staged.close();
  if (target.dir) {
    target.dir->rename_at(target.tmp_name, target.name, target.tmp_path);
    if (target.remembered) {
      std::optional<FileStat> now;
      try {
        now = target.dir->stat_at(target.name, target.local_path);
      } catch (const OSError&) {
      }
      if (now) _remember_local_sha(target.file_path, target.local_path, actual_sha, &*now);
    }
  } else {
    rename_file(target.tmp_path, target.local_path);
    if (target.remembered) _remember_local_sha(target.file_path, target.local_path, actual_sha);
  }
  result.bytes_downloaded += staged.total_written();
  if (target.file_type == "feature") result.features_downloaded += 1;
}

void SyncManager::_download_file(const std::string& file_path, const Json& file_info, SyncResult& result,
                                 int max_retries, const RetryStatusCallback& retry_status_callback,
                                 const std::optional<std::string>& target_data_dir) {
  _download_attempts(_download_target(file_path, file_info, target_data_dir), result, max_retries,
                     retry_status_callback, 0);
}

bool SyncManager::_end_first_attempt(const DownloadTarget& target, StagedFile& staged, OpenedResponse opened,
                                     std::exception_ptr failure, SyncResult& result) {
  // The first of the attempts below, for a file with nothing staged, made
  // as one exchange elsewhere: the same answers count, and whatever would
  // make that loop try again leaves the file to its next attempt.
  HttpResponse resp;
  try {
    resp = _sync_get_result(target.url, std::move(opened), failure);
  } catch (const std::exception& e) {
    staged.flush_after_failure();
    if (!is_retried(e)) throw;
    return false;
  }
  staged.flush();
  if (resp.status != 200) return false;  // a SyncError there, which is retried
  if (target.expected_size > 0 && staged.total_written() < target.expected_size) return false;
  const std::string actual_sha = staged.hexdigest();
  if (!staged_digest_fits(target, actual_sha)) {
    staged.discard();
    return false;
  }
  _commit_download(target, staged, actual_sha, result);
  return true;
}

void SyncManager::_download_attempts(const DownloadTarget& target, SyncResult& result, int max_retries,
                                     const RetryStatusCallback& retry_status_callback, int first_attempt) {
  const std::string& file_path = target.file_path;
  const std::int64_t expected_size = target.expected_size;
  const int max_attempts = std::max(max_retries, 1);
  const int last_attempt = max_attempts - 1;
  const std::string attempts_text = std::to_string(max_attempts);

  auto get = [&](std::int64_t range_start, std::int64_t range_end, const BodySink* sink) {
    return target.public_download ? _http_get_public(target.url, range_start, range_end, sink)
                                  : _http_get(target.url, range_start, range_end, sink);
  };
  // The wait before the next attempt; the file is closed before it.
  auto pause_before_retry = [&](double wait_s, StagedFile& staged) {
    if (retry_status_callback) retry_status_callback(wait_s);
    staged.close();
    sync_sleep(wait_s);
  };
  // An attempt made elsewhere has ended, and its wait is still due.
  if (first_attempt > 0) sync_sleep(wait_after(first_attempt - 1));

  for (int attempt = first_attempt; attempt <= last_attempt; ++attempt) {
    const double wait_s = wait_after(attempt);
    StagedFile staged(target, _bytes_arrived);
    const std::int64_t range_start = staged.range_start();

    // Bodies stream into the staging file and the digest as they arrive, so
    // whatever came before a failure stays staged and is never fetched again.
    auto fetch = [&](std::int64_t start, std::int64_t end, bool take_206, bool take_200) {
      const BodySink sink = staged.sink(take_206, take_200, expected_size);
      HttpResponse resp;
      try {
        resp = get(start, end, &sink);
      } catch (...) {
        staged.flush_after_failure();
        throw;
      }
      staged.flush();
      return resp;
    };

    try {
      const std::int64_t chunk_bytes = _sync_http_chunk_bytes();
      if (comes_in_chunks(expected_size, chunk_bytes)) {
        while (staged.total_written() < expected_size) {
          const std::int64_t chunk_start = staged.total_written();
          const std::int64_t chunk_end = std::min(chunk_start + chunk_bytes - 1, expected_size - 1);
          const HttpResponse resp = fetch(chunk_start, chunk_end, true, chunk_start == 0);
          if (resp.status == 206) {
            if (staged.total_written() == chunk_start) {
              throw SyncError("Download failed for " + file_path + ": empty range " +
                              std::to_string(chunk_start) + "-" + std::to_string(chunk_end));
            }
          } else if (resp.status == 200 && chunk_start == 0) {
            // The range was ignored: this is the whole file.
            break;
          } else {
            throw http_failure(file_path, resp.status);
          }
        }
      } else if (expected_size > 0 && range_start >= expected_size) {
        // Everything is staged already (a process killed just before its
        // rename leaves that). A range after the end would only get 416,
        // so the digest decides: renamed, or emptied for a fresh attempt.
      } else if (range_start > 0) {
        const HttpResponse resp = fetch(range_start, -1, true, true);
        if (resp.status != 206 && resp.status != 200) throw http_failure(file_path, resp.status);
      } else {
        const HttpResponse resp = fetch(0, -1, false, true);
        if (resp.status != 200) throw http_failure(file_path, resp.status);
      }

      if (expected_size > 0 && staged.total_written() < expected_size) {
        if (attempt < last_attempt) {
          pause_before_retry(wait_s, staged);
          continue;
        }
        // Only an attempt that resumed and made progress is refused here;
        // any other short file goes on to the digest.
        if (range_start != 0 && staged.total_written() > range_start) {
          throw IntegrityError("Incomplete download for " + file_path + " after " + attempts_text +
                               " attempts: got " + std::to_string(staged.total_written()) + " bytes, expected " +
                               std::to_string(expected_size));
        }
      }
    } catch (const std::exception& dl_err) {
      if (!is_retried(dl_err)) throw;
      if (attempt < last_attempt) {
        pause_before_retry(wait_s, staged);
        continue;
      }
      throw IntegrityError(
          "Download failed for " + file_path + " after " + attempts_text + " attempts: " + dl_err.what(),
          std::current_exception());
    }

    const std::string actual_sha = staged.hexdigest();
    if (!staged_digest_fits(target, actual_sha)) {
      if (attempt < last_attempt) {
        if (retry_status_callback) retry_status_callback(wait_s);
        staged.discard();
        staged.close();
        sync_sleep(wait_s);
        continue;
      }
      throw IntegrityError("Checksum failure for " + file_path + " after " + attempts_text +
                           " attempts: expected " + plain(target.expected_sha) + ", got " + actual_sha);
    }
    _commit_download(target, staged, actual_sha, result);
    return;
  }
}

}  // namespace quillmarsh::sync
