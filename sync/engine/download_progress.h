// An optional observer of download batches, offered beyond the component's
// own behaviour: a command line shows files done, bytes and rate with it.
// Without an observer nothing here does anything.
#ifndef QUILLMARSH_SYNC_ENGINE_DOWNLOAD_PROGRESS_H_
#define QUILLMARSH_SYNC_ENGINE_DOWNLOAD_PROGRESS_H_

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "sync/records.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// Where one download batch stands.
struct DownloadProgress {
  std::int64_t files_done = 0;
  std::int64_t files_selected = 0;
  std::int64_t bytes_done = 0;      // written by this batch so far
  std::int64_t bytes_selected = 0;  // the selected entries' size_bytes, summed
};

// Called on the thread that runs the batch: once when it starts, then as
// each file completes. It must not throw; a failure of it is ignored.
using ProgressObserver = std::function<void(const DownloadProgress&)>;

// Counts a batch's completed files for an observer, if there is one.
class ProgressTally {
 public:
  // `arrived` counts every body byte that reaches a staging file.
  ProgressTally(std::shared_ptr<const ProgressObserver> observer, const Json& files, const SyncResult& result,
                const std::atomic<std::int64_t>& arrived)
      : observer_(std::move(observer)),
        result_(result),
        bytes_before_(result.bytes_downloaded),
        arrived_(arrived),
        arrived_before_(arrived.load()) {
    if (!observer_) return;
    progress_.files_selected = static_cast<std::int64_t>(files.size());
    for (const auto& [path, info] : files.items()) {
      // Only what reads without failing: the count is for display.
      if (info.is_object() && info.contains("size_bytes") && info["size_bytes"].is_number_integer()) {
        progress_.bytes_selected += info["size_bytes"].get<std::int64_t>();
      }
    }
    tell();
  }

  // One more file is done; the record holds the batch's bytes so far.
  void file_done() {
    if (!observer_) return;
    ++progress_.files_done;
    progress_.bytes_done = std::max(result_.bytes_downloaded - bytes_before_, arrived_bytes());
    tell();
  }

  // Between completions: the bytes that have arrived, when they moved.
  void bytes_arriving() {
    if (!observer_) return;
    const std::int64_t now = arrived_bytes();
    if (now <= progress_.bytes_done) return;
    progress_.bytes_done = now;
    tell();
  }

 private:
  void tell() {
    try {
      (*observer_)(progress_);
    } catch (...) {
      // A display must never change the outcome of a download.
    }
  }

  // A byte fetched twice (a retried attempt) counts once towards the total.
  std::int64_t arrived_bytes() const {
    const std::int64_t arrived = arrived_.load(std::memory_order_relaxed) - arrived_before_;
    return progress_.bytes_selected > 0 ? std::min(arrived, progress_.bytes_selected) : arrived;
  }

  std::shared_ptr<const ProgressObserver> observer_;
  const SyncResult& result_;
  const std::int64_t bytes_before_;
  const std::atomic<std::int64_t>& arrived_;
  const std::int64_t arrived_before_;
  DownloadProgress progress_;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_DOWNLOAD_PROGRESS_H_
