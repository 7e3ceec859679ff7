// The single downloader: one manifest entry to its final path, streamed into
// a fixed staging file that is also the resume point between attempts.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sync/engine/file_primitives.h"
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

}  // namespace

void SyncManager::_download_file(const std::string& file_path, const Json& file_info, SyncResult& result,
                                 int max_retries, const RetryStatusCallback& retry_status_callback,
                                 const std::optional<std::string>& target_data_dir) {
  if (!file_info.is_object()) throw TypeError("file entry for " + file_path + " is not a mapping");

  Json base_url = member(file_info, "_manifest_base_url");
  if (!is_given(base_url)) base_url = member(file_info, "base_url");
  if (!is_given(base_url)) {
    if (const std::shared_ptr<Manifest> manifest = _manifest.load()) base_url = manifest->base_url;
  }
  const std::string url = _manifest_file_url(_server_url, file_path, base_url);
  const bool use_public_download =
      base_url.is_string() && !strip(base_url.get_ref<const std::string&>()).empty();
  const bool other_root = target_data_dir && !target_data_dir->empty();
  const std::string local_path = _manifest_local_path(other_root ? *target_data_dir : _data_dir, file_path);

  const Json expected_sha = file_info.contains("sha256") ? file_info["sha256"] : Json("");
  const std::int64_t expected_size = file_info.contains("size_bytes") ? integer_of(file_info["size_bytes"]) : 0;
  const Json file_type = file_info.contains("kind") ? file_info["kind"] : Json("");
  const std::string tmp_path = local_path + ".tmp";
  if (const std::string parent = dir_name(local_path); !parent.empty()) make_dirs(parent);

  const int max_attempts = std::max(max_retries, 1);
  const int last_attempt = max_attempts - 1;
  const std::string attempts_text = std::to_string(max_attempts);

  auto get = [&](std::int64_t range_start, std::int64_t range_end, const BodySink* sink) {
    return use_public_download ? _http_get_public(url, range_start, range_end, sink)
                               : _http_get(url, range_start, range_end, sink);
  };
  auto http_failure = [&](int status) {
    return SyncError("Download failed for " + file_path + ": HTTP " + std::to_string(status));
  };
  // The wait before the next attempt; the file is closed before it.
  auto pause_before_retry = [&](double wait_s, UpdatableFile& fh) {
    if (retry_status_callback) retry_status_callback(wait_s);
    fh.close();
    sync_sleep(wait_s);
  };

  for (int attempt = 0; attempt <= last_attempt; ++attempt) {
    const double wait_s = std::min(0.25 * std::pow(2.0, attempt), 1.0);
    std::int64_t total_written = 0;
    auto h = std::make_unique<Sha256Hasher>();

    // What an earlier attempt (or call) left is kept; rebuild its digest.
    // Reading it through leaves the position at its end.
    UpdatableFile fh(tmp_path, UpdatableFile::create);
    {
      // Not zeroed: nearly always the first read finds the file empty.
      const std::unique_ptr<char[]> piece(new char[kRehashPieceBytes]);
      while (const std::size_t got = fh.read(piece.get(), kRehashPieceBytes)) {
        h->update(std::string_view(piece.get(), got));
        total_written += static_cast<std::int64_t>(got);
      }
    }
    const std::int64_t range_start = total_written;

    // Bodies stream into the staging file and the digest as they arrive, so
    // whatever came before a failure stays staged and is never fetched again.
    // A 206 goes on at the staged end; a 200, where taken, is the whole file
    // and replaces what was staged. Any other answer stays in memory.
    std::string pending;  // arrived and hashed, not yet written
    auto write_pending = [&] {
      if (pending.empty()) return;
      fh.write(pending);
      pending.clear();
    };
    auto fetch = [&](std::int64_t start, std::int64_t end, bool take_206, bool take_200) {
      // A small file needs no more room than it has bytes.
      const std::int64_t expected_left = expected_size - total_written;
      pending.reserve(expected_left > 0 ? std::min<std::size_t>(kWriteBatchBytes, static_cast<std::size_t>(expected_left))
                                        : kWriteBatchBytes);
      BodySink sink;
      sink.accepts = [&](int status) {
        if (status == 206) return take_206;
        if (status != 200 || !take_200) return false;
        if (total_written > 0) {
          fh.seek(0);
          fh.truncate();
        }
        h = std::make_unique<Sha256Hasher>();
        total_written = 0;
        return true;
      };
      sink.write = [&](std::string_view piece) {
        h->update(piece);
        pending.append(piece);
        total_written += static_cast<std::int64_t>(piece.size());
        _bytes_arrived.fetch_add(static_cast<std::int64_t>(piece.size()), std::memory_order_relaxed);
        if (pending.size() >= kWriteBatchBytes) write_pending();
      };
      HttpResponse resp;
      try {
        resp = get(start, end, &sink);
      } catch (...) {
        // What arrived before the failure is staged all the same, so that
        // no attempt fetches it again; the next attempt reads back the
        // staging file, so a write that fails here loses nothing but bytes.
        try {
          write_pending();
        } catch (const std::exception&) {
        }
        throw;
      }
      write_pending();
      return resp;
    };

    try {
      const std::int64_t chunk_bytes = _sync_http_chunk_bytes();
      if (expected_size > chunk_bytes) {
        while (total_written < expected_size) {
          const std::int64_t chunk_start = total_written;
          const std::int64_t chunk_end = std::min(chunk_start + chunk_bytes - 1, expected_size - 1);
          const HttpResponse resp = fetch(chunk_start, chunk_end, true, chunk_start == 0);
          if (resp.status == 206) {
            if (total_written == chunk_start) {
              throw SyncError("Download failed for " + file_path + ": empty range " +
                              std::to_string(chunk_start) + "-" + std::to_string(chunk_end));
            }
          } else if (resp.status == 200 && chunk_start == 0) {
            // The range was ignored: this is the whole file.
            break;
          } else {
            throw http_failure(resp.status);
          }
        }
      } else if (expected_size > 0 && range_start >= expected_size) {
        // Everything is staged already (a process killed just before its
        // rename leaves that). A range after the end would only get 416,
        // so the digest decides: renamed, or emptied for a fresh attempt.
      } else if (range_start > 0) {
        const HttpResponse resp = fetch(range_start, -1, true, true);
        if (resp.status != 206 && resp.status != 200) throw http_failure(resp.status);
      } else {
        const HttpResponse resp = fetch(0, -1, false, true);
        if (resp.status != 200) throw http_failure(resp.status);
      }

      if (expected_size > 0 && total_written < expected_size) {
        if (attempt < last_attempt) {
          pause_before_retry(wait_s, fh);
          continue;
        }
        // Only an attempt that resumed and made progress is refused here;
        // any other short file goes on to the digest.
        if (range_start != 0 && total_written > range_start) {
          throw IntegrityError("Incomplete download for " + file_path + " after " + attempts_text +
                               " attempts: got " + std::to_string(total_written) + " bytes, expected " +
                               std::to_string(expected_size));
        }
      }
    } catch (const std::exception& dl_err) {
      if (!is_retried(dl_err)) throw;
      if (attempt < last_attempt) {
        pause_before_retry(wait_s, fh);
        continue;
      }
      throw IntegrityError(
          "Download failed for " + file_path + " after " + attempts_text + " attempts: " + dl_err.what(),
          std::current_exception());
    }

    const std::string actual_sha = h->hexdigest();
    if (is_given(expected_sha) && !(expected_sha.is_string() && expected_sha == actual_sha)) {
      if (attempt < last_attempt) {
        if (retry_status_callback) retry_status_callback(wait_s);
        // A wrong digest leaves nothing worth resuming from.
        fh.seek(0);
        fh.truncate();
        fh.close();
        sync_sleep(wait_s);
        continue;
      }
      throw IntegrityError("Checksum failure for " + file_path + " after " + attempts_text +
                           " attempts: expected " + plain(expected_sha) + ", got " + actual_sha);
    }
    fh.close();

    rename_file(tmp_path, local_path);
    if ((!target_data_dir || *target_data_dir == _data_dir) && file_type != "vault_module" &&
        file_type != "backtester_module") {
      _remember_local_sha(file_path, local_path, actual_sha);
    }
    result.bytes_downloaded += total_written;
    if (file_type == "feature") result.features_downloaded += 1;
    return;
  }
}

}  // namespace quillmarsh::sync
