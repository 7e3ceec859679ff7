// A batch of independent files through a worker pool, each by the single
// downloader. Workers fill records of their own; only the calling thread
// writes the caller's.
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sync/engine/tunables.h"
#include "sync/errors.h"
#include "sync/support/worker_pool.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

void SyncManager::_download_files_parallel(const Json& files_to_download, SyncResult& result) {
  if (files_to_download.empty()) return;
  ProgressTally progress(_progress_observer.load(), files_to_download, result, _bytes_arrived);
  const auto count = static_cast<std::int64_t>(files_to_download.size());
  const std::int64_t max_workers = std::min(_sync_max_concurrency(), count);
  if (max_workers <= 1) {
    // A plain loop keeps stack traces simple for whoever turned concurrency off.
    for (const auto& [file_path, file_info] : files_to_download.items()) {
      _download_file(file_path, file_info, result);
      progress.file_done();
    }
    return;
  }

  // Workers that outlive a timed-out batch still need their entries and the
  // manager, so both are held by the tasks rather than borrowed.
  using Item = std::pair<std::string, Json>;
  auto items = std::make_shared<std::vector<Item>>();
  items->reserve(files_to_download.size());
  for (const auto& [file_path, file_info] : files_to_download.items()) items->emplace_back(file_path, file_info);

  std::exception_ptr first_error;
  bool timed_out = false;
  const std::optional<double> parallel_timeout = _sync_parallel_timeout_seconds(count, max_workers);
  WorkerPool ex(static_cast<std::size_t>(max_workers), "qm-sync");
  try {
    const std::shared_ptr<SyncManager> self = shared_from_this();
    // Index i is the task of (*items)[i]: the map from task to path.
    std::vector<std::shared_ptr<PoolFuture<SyncResult>>> future_to_path;
    future_to_path.reserve(items->size());
    for (std::size_t i = 0; i < items->size(); ++i) {
      future_to_path.push_back(ex.submit([self, items, i] {
        SyncResult local;
        const auto& [file_path, file_info] = (*items)[i];
        self->_download_file(file_path, file_info, local);
        return local;
      }));
    }

    Completions completions(future_to_path, parallel_timeout);
    try {
      // A display moves with the bytes, a few times a second, not per file.
      const auto tick = [&progress] { progress.bytes_arriving(); };
      while (const std::optional<std::size_t> done = completions.next(tick, 0.25)) {
        try {
          const SyncResult& local = future_to_path[*done]->result();
          result.bytes_downloaded += local.bytes_downloaded;
          result.features_downloaded += local.features_downloaded;
          progress.file_done();
        } catch (...) {
          // The batch goes on; only the first failure is reported.
          if (!first_error) first_error = std::current_exception();
        }
      }
    } catch (const FuturesTimeoutError&) {
      timed_out = true;
      std::vector<std::string> pending_paths;
      for (std::size_t i = 0; i < future_to_path.size(); ++i) {
        if (!future_to_path[i]->done()) pending_paths.push_back((*items)[i].first);
      }
      for (const auto& task : future_to_path) task->cancel();
      std::string preview;
      for (std::size_t i = 0; i < pending_paths.size() && i < 3; ++i) {
        preview += (i ? ", " : "") + pending_paths[i];
      }
      if (pending_paths.size() > 3) preview += ", ...";
      char seconds[64];
      std::snprintf(seconds, sizeof seconds, "%.1f", *parallel_timeout);
      throw SyncError("Timed out after " + std::string(seconds) + "s in parallel download with " +
                          std::to_string(pending_paths.size()) + " file(s) pending: " + preview,
                      std::current_exception());
    }
  } catch (...) {
    // After a timeout, running downloads are left to end by themselves.
    ex.shutdown(!timed_out, timed_out);
    throw;
  }
  ex.shutdown(true, false);
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace quillmarsh::sync
