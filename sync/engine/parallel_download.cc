// A batch of independent files. Most files of a data set are small and new:
// their first attempt is one whole-file GET, and transfer loops carry those
// side by side, a few per thread, as a thread per transfer would only spend
// the machine on switching between threads. Files that come in ranged
// chunks, files with something staged, and every attempt after a first go
// to the worker pool, one file per task, through the single downloader.
// Workers fill records of their own; only the calling thread writes the
// caller's.
#include <atomic>
#include <chrono>
#include <cmath>
#include <optional>
#include <thread>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "sync/engine/tunables.h"
#include "sync/errors.h"
#include "sync/support/sleep.h"
#include "sync/support/worker_pool.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

using Clock = std::chrono::steady_clock;

// Transfers one loop carries at once, and so how many loops a batch runs.
// One loop carries the default eight: on a small machine a second loop
// thread costs more in switching and in cache than it brings, as the
// server at the other end needs a core too.
constexpr std::int64_t kTransfersPerLoop = 8;
// The attempts a batch gives each file.
constexpr int kBatchAttempts = 3;

using Item = std::pair<std::string, Json>;

// How the batch's files end, for the thread that waits for them. That
// thread is woken when the last file ends, not at every file.
struct Board {
  struct Ended {
    std::size_t index;
    SyncResult local;
    std::exception_ptr failure;
  };
  Board(std::vector<Item> files, std::int64_t max_at_once)
      : items(std::move(files)), limit(max_at_once), done(items.size(), false) {}

  // A place for one more file among those under way, if there is one.
  bool reserve() {
    std::int64_t n = under_way.load();
    while (n < limit && !under_way.compare_exchange_weak(n, n + 1)) {
    }
    return n < limit;
  }

  void finish(std::size_t index, const SyncResult& local, std::exception_ptr failure) {
    {
      std::lock_guard<std::mutex> lock(mu);
      ended.push_back({index, local, std::move(failure)});
      done[index] = true;
      if (++finished == items.size()) all_done.notify_all();
    }
    under_way.fetch_sub(1);
    place_freed.notify_all();
  }

  const std::vector<Item> items;
  // Files under way at once, in loops or with workers, as with as many
  // workers taking one file each.
  const std::int64_t limit;
  std::atomic<std::int64_t> under_way{0};
  std::atomic<std::size_t> cursor{0};  // the next file no loop has taken
  std::atomic<bool> abandoned{false};  // the batch timed out: loops stop
  std::mutex mu;
  std::condition_variable all_done;
  std::condition_variable place_freed;
  std::vector<Ended> ended;  // not yet collected
  std::vector<bool> done;
  std::size_t finished = 0;
};

// What a batch's tasks hold: workers that outlive a timed-out batch still
// need the files, the board, the manager and the pool.
struct Batch {
  std::shared_ptr<SyncManager> manager;
  std::shared_ptr<Board> board;
  std::shared_ptr<WorkerPool> pool;
};

// Attempts of one file on a worker from `first_attempt` on, the target
// known, or (without it) the whole download.
void download_on_worker(const Batch& batch, std::size_t index, std::optional<DownloadTarget> target,
                        int first_attempt) {
  try {
    batch.pool->submit([batch, index, target = std::move(target), first_attempt] {
      SyncResult local;
      std::exception_ptr failure;
      try {
        const auto& [file_path, file_info] = batch.board->items[index];
        if (target) {
          batch.manager->_download_attempts(*target, local, kBatchAttempts, nullptr, first_attempt);
        } else {
          batch.manager->_download_file(file_path, file_info, local, kBatchAttempts);
        }
      } catch (...) {
        failure = std::current_exception();
      }
      batch.board->finish(index, local, failure);
    });
  } catch (...) {
    // Only a batch that timed out has shut its pool; its files stay pending.
  }
}

// One file's first attempt in a loop.
struct InFlight {
  std::size_t index = 0;
  DownloadTarget target;
  std::unique_ptr<StagedFile> staged;
  BodySink sink;
  HttpRequest request;
  std::optional<HeadTimeoutRetries> head_timeouts;
};

// Takes files from the board until none are left, carrying up to `slots`
// first attempts at once.
void run_transfer_loop(const Batch& batch, std::int64_t slots) {
  Board& board = *batch.board;
  SyncManager& manager = *batch.manager;
  const double timeout_s = _sync_http_timeout_seconds();
  const std::int64_t chunk_bytes = _sync_http_chunk_bytes();
  std::vector<std::unique_ptr<InFlight>> running;
  std::vector<std::unique_ptr<InFlight>> again;  // asked again after a head timeout
  bool files_left = true;

  try {
    TransferLoop loop;
    TargetPlaces places(manager._data_dir);
    auto take = [&](InFlight* flight) {
      std::unique_ptr<InFlight> owned;
      for (auto& r : running) {
        if (r.get() == flight) owned = std::move(r);
      }
      std::erase(running, nullptr);
      return owned;
    };

    auto ended = [&](InFlight* flight, OpenedResponse response, std::exception_ptr failure) {
      std::unique_ptr<InFlight> owned = take(flight);
      try {
        if (failure) {
          try {
            std::rethrow_exception(failure);
          } catch (const TimeoutError& e) {
            // As a single request would: wait, and ask again. The wait holds
            // up the loop's other transfers, which is rare enough to be
            // cheaper than a timer of our own beside the one sleep.
            if (const std::optional<double> wait = owned->head_timeouts->after(e)) {
              sync_sleep(*wait);
              again.push_back(std::move(owned));
              return;
            }
            failure = std::make_exception_ptr(owned->head_timeouts->exhausted());
          } catch (...) {
          }
        }
        SyncResult local;
        if (manager._end_first_attempt(owned->target, *owned->staged, std::move(response), failure, local)) {
          board.finish(owned->index, local, nullptr);
          return;
        }
        owned->staged.reset();  // closed before the next attempt opens it
        download_on_worker(batch, owned->index, std::move(owned->target), 1);
      } catch (...) {
        board.finish(owned->index, SyncResult{}, std::current_exception());
      }
    };

    auto start = [&](std::unique_ptr<InFlight> flight) {
      InFlight* raw = flight.get();
      running.push_back(std::move(flight));
      try {
        loop.start(raw->request, timeout_s, [&ended, raw](OpenedResponse response, std::exception_ptr failure) {
          ended(raw, std::move(response), std::move(failure));
        });
      } catch (...) {
        const std::unique_ptr<InFlight> owned = take(raw);
        board.finish(owned->index, SyncResult{}, std::current_exception());
      }
    };

    // The next file: into the loop when its first attempt is one plain GET
    // with nothing staged, else to a worker.
    // Called with a place reserved.
    auto next_file = [&] {
      const std::size_t index = board.cursor.fetch_add(1);
      if (index >= board.items.size()) {
        files_left = false;
        board.under_way.fetch_sub(1);
        return;
      }
      const auto& [file_path, file_info] = board.items[index];
      try {
        auto flight = std::make_unique<InFlight>();
        flight->index = index;
        flight->target = manager._download_target(file_path, file_info, std::nullopt, &places);
        if (!comes_in_chunks(flight->target.expected_size, chunk_bytes)) {
          flight->staged = std::make_unique<StagedFile>(flight->target, manager._bytes_arrived);
        }
        if (!flight->staged || flight->staged->range_start() > 0) {
          flight->staged.reset();
          download_on_worker(batch, index, std::move(flight->target), 0);
          return;
        }
        flight->sink = flight->staged->sink(false, true, flight->target.expected_size);
        flight->request =
            manager._download_request(flight->target.url, flight->target.public_download, &flight->sink);
        flight->head_timeouts.emplace(flight->request.full_url);
        start(std::move(flight));
      } catch (...) {
        board.finish(index, SyncResult{}, std::current_exception());
      }
    };

    while (!board.abandoned.load()) {
      for (auto& flight : again) start(std::move(flight));
      again.clear();
      while (files_left && static_cast<std::int64_t>(running.size()) < slots && board.reserve()) next_file();
      if (running.empty()) {
        if (!files_left) break;
        // Every place is taken by files that workers try again.
        std::unique_lock<std::mutex> lock(board.mu);
        board.place_freed.wait_for(lock, std::chrono::milliseconds(100));
        continue;
      }
      loop.run(100);  // also how soon an abandoned batch is noticed
    }
  } catch (...) {
    // The loop itself failed (libcurl could not be set up): what it carried
    // fails with it, and its share of the files goes to the workers.
    const std::exception_ptr failure = std::current_exception();
    for (auto* list : {&running, &again}) {
      for (auto& flight : *list) {
        if (flight) board.finish(flight->index, SyncResult{}, failure);
      }
    }
    for (std::size_t index; (index = board.cursor.fetch_add(1)) < board.items.size();) {
      board.under_way.fetch_add(1);
      download_on_worker(batch, index, std::nullopt, 0);
    }
  }
}

}  // namespace

void SyncManager::_download_files_parallel(Json files_to_download, SyncResult& result) {
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

  // The batch owns its entries: workers of a batch that timed out outlive
  // this call.
  std::vector<Item> items;
  items.reserve(files_to_download.size());
  if (files_to_download.is_object()) {
    for (auto& [file_path, file_info] : files_to_download.get_ref<Json::object_t&>()) {
      items.emplace_back(file_path, std::move(file_info));
    }
  } else {
    for (const auto& [file_path, file_info] : files_to_download.items()) items.emplace_back(file_path, file_info);
  }
  // A thread for each loop, and one for every file that can be under way,
  // so that no file handed to a worker waits for a thread.
  const std::int64_t loops = (max_workers + kTransfersPerLoop - 1) / kTransfersPerLoop;
  const Batch batch{shared_from_this(), std::make_shared<Board>(std::move(items), max_workers),
                    std::make_shared<WorkerPool>(static_cast<std::size_t>(max_workers + loops), "qm-sync")};
  Board& board = *batch.board;
  for (std::int64_t i = 0; i < loops; ++i) {
    const std::int64_t slots = max_workers / loops + (i < max_workers % loops ? 1 : 0);
    batch.pool->submit([batch, slots] { run_transfer_loop(batch, slots); });
  }

  const std::optional<double> parallel_timeout = _sync_parallel_timeout_seconds(count, max_workers);
  std::optional<Clock::time_point> deadline;
  // Far-off or non-finite limits are no limit; they would overflow the clock.
  if (parallel_timeout && std::isfinite(*parallel_timeout) && *parallel_timeout < 1e9) {
    deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                  std::chrono::duration<double>(std::max(*parallel_timeout, 0.0)));
  }
  // A display moves with the bytes, a few times a second, not per file.
  const bool observed = _progress_observer.load() != nullptr;
  const auto every = std::chrono::milliseconds(250);

  std::exception_ptr first_error;
  std::vector<Board::Ended> collected;
  for (;;) {
    bool all_done = false;
    {
      std::unique_lock<std::mutex> lock(board.mu);
      const auto woken_by = observed ? std::optional<Clock::time_point>(Clock::now() + every) : std::nullopt;
      const auto until = woken_by && deadline ? std::min(*woken_by, *deadline) : woken_by ? woken_by : deadline;
      const auto finished = [&] { return board.finished == board.items.size(); };
      if (until) {
        board.all_done.wait_until(lock, *until, finished);
      } else {
        board.all_done.wait(lock, finished);
      }
      collected.swap(board.ended);
      all_done = finished();
    }
    for (const Board::Ended& e : collected) {
      if (e.failure) {
        // The batch goes on; only the first failure is reported.
        if (!first_error) first_error = e.failure;
        continue;
      }
      result.bytes_downloaded += e.local.bytes_downloaded;
      result.features_downloaded += e.local.features_downloaded;
      progress.file_done();
    }
    collected.clear();
    if (all_done) break;
    if (deadline && Clock::now() >= *deadline) {
      board.abandoned = true;
      std::vector<std::string> pending_paths;
      {
        std::lock_guard<std::mutex> lock(board.mu);
        for (std::size_t i = 0; i < board.items.size(); ++i) {
          if (!board.done[i]) pending_paths.push_back(board.items[i].first);
        }
      }
      // Queued attempts are withdrawn; running ones are left to end by themselves.
      batch.pool->shutdown(false, true);
      std::string preview;
      for (std::size_t i = 0; i < pending_paths.size() && i < 3; ++i) {
        preview += (i ? ", " : "") + pending_paths[i];
      }
      if (pending_paths.size() > 3) preview += ", ...";
      char seconds[64];
      std::snprintf(seconds, sizeof seconds, "%.1f", *parallel_timeout);
      throw SyncError("Timed out after " + std::string(seconds) + "s in parallel download with " +
                          std::to_string(pending_paths.size()) + " file(s) pending: " + preview,
                      std::make_exception_ptr(FuturesTimeoutError(std::to_string(pending_paths.size()) + " (of " +
                                                                  std::to_string(board.items.size()) +
                                                                  ") futures unfinished")));
    }
    progress.bytes_arriving();
  }
  batch.pool->shutdown(true, false);
  if (first_error) std::rethrow_exception(first_error);
}

}  // namespace quillmarsh::sync
