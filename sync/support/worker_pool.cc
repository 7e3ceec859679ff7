#include "sync/support/worker_pool.h"

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace pool_detail {

// What the pool's threads share with it. It outlives the WorkerPool object
// while detached workers still run.
struct Shared {
  std::mutex mu;
  std::condition_variable work_cv;  // a call was queued, or shutdown
  std::deque<std::function<void()>> queue;
  std::size_t idle = 0;
  bool shutdown = false;
};

}  // namespace pool_detail

using pool_detail::Shared;

WorkerPool::WorkerPool(std::size_t max_workers, std::string thread_name_prefix)
    : shared_(std::make_shared<Shared>()),
      max_workers_(std::max<std::size_t>(max_workers, 1)),
      prefix_(std::move(thread_name_prefix)) {}

WorkerPool::~WorkerPool() { shutdown(true, false); }

void WorkerPool::submit(std::function<void()> fn) {
  std::lock_guard<std::mutex> lock(shared_->mu);
  if (shared_->shutdown) throw RuntimeError("cannot schedule new calls after shutdown");
  shared_->queue.push_back(std::move(fn));
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
    std::function<void()> call = std::move(shared->queue.front());
    shared->queue.pop_front();
    lock.unlock();
    try {
      call();
    } catch (...) {
    }
    // Captures go now, not when the next call takes the slot.
    call = nullptr;
    lock.lock();
  }
}

void WorkerPool::shutdown(bool wait, bool cancel_queued) {
  std::deque<std::function<void()>> withdrawn;
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(shared_->mu);
    shared_->shutdown = true;
    if (cancel_queued) withdrawn.swap(shared_->queue);
    threads.swap(threads_);
  }
  shared_->work_cv.notify_all();
  withdrawn.clear();  // outside the lock: captures may be anything
  for (auto& thread : threads) {
    if (wait && thread.get_id() != std::this_thread::get_id()) {
      thread.join();
    } else {
      thread.detach();
    }
  }
}

}  // namespace quillmarsh::sync
