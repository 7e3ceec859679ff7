#include "cli/progress.h"

#include <unistd.h>

namespace quillmarsh::sync::cli {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

}  // namespace

TerminalProgress::TerminalProgress(std::FILE* out) : out_(out), enabled_(::isatty(::fileno(out)) == 1) {}

TerminalProgress::~TerminalProgress() { finish(); }

ProgressObserver TerminalProgress::observer() {
  return [this](const DownloadProgress& progress) { draw(progress); };
}

void TerminalProgress::draw(const DownloadProgress& p) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  if (p.files_done == 0 || !batch_start_) batch_start_ = now;
  const double elapsed_s = std::chrono::duration<double>(now - *batch_start_).count();
  const double rate = elapsed_s > 0 ? static_cast<double>(p.bytes_done) / elapsed_s / kMiB : 0.0;
  std::fprintf(out_, "\r\033[K  %lld/%lld files  %.1f of %.1f MiB  %.1f MiB/s", static_cast<long long>(p.files_done),
               static_cast<long long>(p.files_selected), static_cast<double>(p.bytes_done) / kMiB,
               static_cast<double>(p.bytes_selected) / kMiB, rate);
  std::fflush(out_);
  drawn_ = true;
}

void TerminalProgress::finish() {
  std::lock_guard<std::mutex> lock(mu_);
  if (!drawn_) return;
  std::fputs("\n", out_);
  std::fflush(out_);
  drawn_ = false;
}

}  // namespace quillmarsh::sync::cli
