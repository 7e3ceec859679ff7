#include "sync/support/worker_pool.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace pool_detail {

// What the pool's threads, its tasks and their waiters share. It outlives
// the WorkerPool object while detached workers still run.
struct Shared {
  std::mutex mu;
  std::condition_variable work_cv;  // a call was queued, or shutdown
  std::condition_variable done_cv;  // a task is done
  std::deque<std::shared_ptr<PoolTask>> queue;
  std::size_t idle = 0;
  bool shutdown = false;
  std::uint64_t completions = 0;
};

// The indices of one Completions' tasks, in the order in which they ended.
struct Sink {
  std::deque<std::size_t> finished;
};

}  // namespace pool_detail

using pool_detail::Shared;
using pool_detail::Sink;

PoolTask::PoolTask(std::shared_ptr<Shared> shared) : shared_(std::move(shared)) {}

PoolTask::~PoolTask() = default;

void PoolTask::complete_locked(State end) {
  state_ = end;
  completion_seq_ = ++shared_->completions;
  for (auto& [sink, index] : sinks_) sink->finished.push_back(index);
  sinks_.clear();
  shared_->done_cv.notify_all();
}

bool PoolTask::cancel() {
  {
    std::lock_guard<std::mutex> lock(shared_->mu);
    if (state_ == State::cancelled) return true;
    if (state_ != State::pending) return false;
    complete_locked(State::cancelled);
  }
  // A worker skips a cancelled task, so nothing else touches the callable.
  release();
  return true;
}

bool PoolTask::cancelled() const {
  std::lock_guard<std::mutex> lock(shared_->mu);
  return state_ == State::cancelled;
}

bool PoolTask::running() const {
  std::lock_guard<std::mutex> lock(shared_->mu);
  return state_ == State::running;
}

bool PoolTask::done() const {
  std::lock_guard<std::mutex> lock(shared_->mu);
  return state_ == State::finished || state_ == State::cancelled;
}

void PoolTask::wait() const {
  std::unique_lock<std::mutex> lock(shared_->mu);
  shared_->done_cv.wait(lock, [this] { return state_ == State::finished || state_ == State::cancelled; });
  if (state_ == State::cancelled) throw RuntimeError("the task was cancelled before it began");
  if (failure_) std::rethrow_exception(failure_);
}

WorkerPool::WorkerPool(std::size_t max_workers, std::string thread_name_prefix)
    : shared_(std::make_shared<Shared>()),
      max_workers_(std::max<std::size_t>(max_workers, 1)),
      prefix_(std::move(thread_name_prefix)) {}

WorkerPool::~WorkerPool() { shutdown(true, false); }

void WorkerPool::enqueue(std::shared_ptr<PoolTask> task) {
  std::lock_guard<std::mutex> lock(shared_->mu);
  if (shared_->shutdown) throw RuntimeError("cannot schedule new futures after shutdown");
  shared_->queue.push_back(std::move(task));
  shared_->work_cv.notify_one();
  // A new thread only when the idle ones cannot take all that waits.
  if (shared_->idle >= shared_->queue.size() || threads_.size() >= max_workers_) return;
  const std::string name = prefix_ + "_" + std::to_string(threads_.size());
  threads_.emplace_back([shared = shared_, name] {
    pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
    work(shared);
  });
}

void WorkerPool::work(const std::shared_ptr<Shared>& shared) {
  std::unique_lock<std::mutex> lock(shared->mu);
  for (;;) {
    while (shared->queue.empty() && !shared->shutdown) {
      ++shared->idle;
      shared->work_cv.wait(lock);
      --shared->idle;
    }
    if (shared->queue.empty()) return;
    std::shared_ptr<PoolTask> task = std::move(shared->queue.front());
    shared->queue.pop_front();
    if (task->state_ != PoolTask::State::pending) continue;  // cancelled while queued
    task->state_ = PoolTask::State::running;
    lock.unlock();
    std::exception_ptr failure;
    try {
      task->invoke();
    } catch (...) {
      failure = std::current_exception();
    }
    // Captures go now, not when the last handle on the task does.
    task->release();
    lock.lock();
    task->failure_ = failure;
    task->complete_locked(PoolTask::State::finished);
  }
}

void WorkerPool::shutdown(bool wait, bool cancel_futures) {
  std::vector<std::shared_ptr<PoolTask>> withdrawn;
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(shared_->mu);
    shared_->shutdown = true;
    if (cancel_futures) {
      for (auto& task : shared_->queue) {
        if (task->state_ != PoolTask::State::pending) continue;
        task->complete_locked(PoolTask::State::cancelled);
        withdrawn.push_back(std::move(task));
      }
      shared_->queue.clear();
    }
    threads.swap(threads_);
  }
  shared_->work_cv.notify_all();
  for (auto& task : withdrawn) task->release();
  for (auto& thread : threads) {
    if (wait && thread.get_id() != std::this_thread::get_id()) {
      thread.join();
    } else {
      thread.detach();
    }
  }
}

Completions::Completions(const std::vector<std::shared_ptr<PoolTask>>& tasks,
                         std::optional<double> timeout_s)
    : sink_(std::make_shared<Sink>()), total_(tasks.size()) {
  // Far-off or non-finite limits are no limit; they would overflow the clock.
  if (timeout_s && std::isfinite(*timeout_s) && *timeout_s < 1e9) {
    const auto limit = std::chrono::duration<double>(std::max(*timeout_s, 0.0));
    deadline_ = std::chrono::steady_clock::now() +
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(limit);
  }
  if (tasks.empty()) return;
  shared_ = tasks.front()->shared_;
  std::lock_guard<std::mutex> lock(shared_->mu);
  std::vector<std::pair<std::uint64_t, std::size_t>> already_done;
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    PoolTask& task = *tasks[i];
    if (task.shared_ != shared_) throw ValueError("tasks of different pools cannot be waited on together");
    if (task.state_ == PoolTask::State::finished || task.state_ == PoolTask::State::cancelled) {
      already_done.emplace_back(task.completion_seq_, i);
    } else {
      task.sinks_.emplace_back(sink_, i);
    }
  }
  std::sort(already_done.begin(), already_done.end());
  for (const auto& [seq, index] : already_done) sink_->finished.push_back(index);
}

std::optional<std::size_t> Completions::next() { return next(nullptr, 0); }

std::optional<std::size_t> Completions::next(const std::function<void()>& tick, double every_s) {
  using Clock = std::chrono::steady_clock;
  if (handed_out_ == total_) return std::nullopt;
  const auto every = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(every_s));
  auto next_tick = Clock::now() + every;
  std::unique_lock<std::mutex> lock(shared_->mu);
  while (sink_->finished.empty()) {
    const auto now = Clock::now();
    if (deadline_ && now >= *deadline_) {
      throw FuturesTimeoutError(std::to_string(total_ - handed_out_) + " (of " + std::to_string(total_) +
                                ") futures unfinished");
    }
    if (tick && now >= next_tick) {
      lock.unlock();
      tick();
      lock.lock();
      next_tick = Clock::now() + every;
      continue;
    }
    if (!deadline_ && !tick) {
      shared_->done_cv.wait(lock);
    } else if (!tick) {
      shared_->done_cv.wait_until(lock, *deadline_);
    } else {
      shared_->done_cv.wait_until(lock, deadline_ ? std::min(*deadline_, next_tick) : next_tick);
    }
  }
  const std::size_t index = sink_->finished.front();
  sink_->finished.pop_front();
  ++handed_out_;
  return index;
}

}  // namespace quillmarsh::sync
