// A one-line progress display on a terminal: files done of files selected,
// bytes, rate and time left, redrawn as bytes arrive (a few times a second).
// And what a Ctrl-C during a download leaves, said in words.
#ifndef QUILLMARSH_SYNC_CLI_PROGRESS_H_
#define QUILLMARSH_SYNC_CLI_PROGRESS_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "sync/engine/download_progress.h"

namespace quillmarsh::sync::cli {

class TerminalProgress {
 public:
  // Draws on `out` only when it is a terminal.
  explicit TerminalProgress(std::FILE* out = stderr);
  // Ends the line, if one was drawn.
  ~TerminalProgress();
  TerminalProgress(const TerminalProgress&) = delete;
  TerminalProgress& operator=(const TerminalProgress&) = delete;

  // For SyncManager::set_progress_observer; valid while this lives. Off a
  // terminal it draws nothing but still counts, for the interrupt notice.
  ProgressObserver observer();
  // Ends the line where it stands, so that what follows starts clean.
  void finish();
  // Files completed so far in the current batch.
  std::int64_t files_done();
  // Wipes the line drawn, if any, so that a line written next to the same
  // terminal starts clean; the next update draws it again.
  void clear_line();

 private:
  void draw(const DownloadProgress& progress);

  std::FILE* out_;
  bool enabled_;
  std::mutex mu_;
  bool drawn_ = false;
  std::int64_t files_done_ = 0;
  std::optional<std::chrono::steady_clock::time_point> batch_start_;
};

// While it lives, SIGINT does not kill the process at once: a thread of its
// own says what the interrupted command kept (`notice()`), on stderr, and
// ends the process with exit code 130. Build it before any other thread, so
// that every thread started later leaves SIGINT to it.
class InterruptNotice {
 public:
  explicit InterruptNotice(std::function<std::string()> notice);
  ~InterruptNotice();
  InterruptNotice(const InterruptNotice&) = delete;
  InterruptNotice& operator=(const InterruptNotice&) = delete;

 private:
  std::atomic<bool> done_{false};
  std::thread watcher_;
};

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_PROGRESS_H_
