#include "cli/progress.h"

#include <signal.h>
#include <unistd.h>

#include <cmath>
#include <ctime>

namespace quillmarsh::sync::cli {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

}  // namespace

TerminalProgress::TerminalProgress(std::FILE* out) : out_(out), enabled_(::isatty(::fileno(out)) == 1) {}

TerminalProgress::~TerminalProgress() { finish(); }

ProgressObserver TerminalProgress::observer() {
  return [this](const DownloadProgress& progress) { draw(progress); };
}

std::int64_t TerminalProgress::files_done() {
  std::lock_guard<std::mutex> lock(mu_);
  return files_done_;
}

void TerminalProgress::draw(const DownloadProgress& p) {
  std::lock_guard<std::mutex> lock(mu_);
  files_done_ = p.files_done;
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  // A batch tells its start with nothing done yet.
  if (!batch_start_ || (p.files_done == 0 && p.bytes_done == 0)) batch_start_ = now;
  const double elapsed_s = std::chrono::duration<double>(now - *batch_start_).count();
  const double rate = elapsed_s > 0 ? static_cast<double>(p.bytes_done) / elapsed_s : 0.0;
  std::fprintf(out_, "\r\033[K  %lld/%lld files  %.1f of %.1f MiB  %.1f MiB/s", static_cast<long long>(p.files_done),
               static_cast<long long>(p.files_selected), static_cast<double>(p.bytes_done) / kMiB,
               static_cast<double>(p.bytes_selected) / kMiB, rate / kMiB);
  if (rate > 0 && p.bytes_selected > p.bytes_done) {
    std::fprintf(out_, "  %.0f s left", std::ceil(static_cast<double>(p.bytes_selected - p.bytes_done) / rate));
  }
  std::fflush(out_);
  drawn_ = true;
}

void TerminalProgress::clear_line() {
  std::lock_guard<std::mutex> lock(mu_);
  if (!drawn_) return;
  std::fputs("\r\033[K", out_);
  std::fflush(out_);
  drawn_ = false;
}

void TerminalProgress::finish() {
  std::lock_guard<std::mutex> lock(mu_);
  if (!drawn_) return;
  std::fputs("\n", out_);
  std::fflush(out_);
  drawn_ = false;
}

namespace {

// Wakes the watcher when the command is over; blocked like SIGINT.
constexpr int kWatcherDone = SIGUSR2;

}  // namespace

InterruptNotice::InterruptNotice(std::function<std::string()> notice) {
  sigset_t watched;
  sigemptyset(&watched);
  sigaddset(&watched, SIGINT);
  sigaddset(&watched, kWatcherDone);
  pthread_sigmask(SIG_BLOCK, &watched, nullptr);
  watcher_ = std::thread([this, watched, notice = std::move(notice)] {
    for (;;) {
      int signal_number = 0;
      if (sigwait(&watched, &signal_number) != 0) continue;
      if (signal_number != SIGINT) {
        if (done_.load()) return;
        continue;
      }
      const std::string text = "\n" + notice() + "\n";
      // Straight to the descriptor: other threads may hold stdio's locks.
      [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
      ::_exit(130);
    }
  });
}

InterruptNotice::~InterruptNotice() {
  done_.store(true);
  pthread_kill(watcher_.native_handle(), kWatcherDone);
  watcher_.join();
}

}  // namespace quillmarsh::sync::cli
