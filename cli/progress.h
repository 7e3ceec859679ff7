// A one-line progress display on a terminal: files done of files selected,
// bytes and rate, redrawn as each file completes.
#ifndef QUILLMARSH_SYNC_CLI_PROGRESS_H_
#define QUILLMARSH_SYNC_CLI_PROGRESS_H_

#include <chrono>
#include <cstdio>
#include <mutex>
#include <optional>

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

  bool enabled() const { return enabled_; }
  // For SyncManager::set_progress_observer; valid while this lives.
  ProgressObserver observer();
  // Ends the line where it stands, so that what follows starts clean.
  void finish();

 private:
  void draw(const DownloadProgress& progress);

  std::FILE* out_;
  bool enabled_;
  std::mutex mu_;
  bool drawn_ = false;
  std::optional<std::chrono::steady_clock::time_point> batch_start_;
};

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_PROGRESS_H_
