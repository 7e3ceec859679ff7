// A small pool of worker threads for independent calls, and a wait that
// hands their completions out in the order in which they finish.
//
//   WorkerPool pool(4, "qm-sync");
//   std::vector<std::shared_ptr<PoolFuture<int>>> tasks;
//   for (...) tasks.push_back(pool.submit([] { return work(); }));
//   Completions done(tasks, 30.0);
//   while (auto i = done.next()) use(tasks[*i]->result());
//   pool.shutdown();
#ifndef QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_
#define QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace quillmarsh::sync {

namespace pool_detail {
struct Shared;
struct Sink;
}  // namespace pool_detail

// One submitted call. It is done once it has run (returned or failed) or has
// been cancelled before it began.
class PoolTask {
 public:
  virtual ~PoolTask();
  PoolTask(const PoolTask&) = delete;
  PoolTask& operator=(const PoolTask&) = delete;

  // Withdraws the call if it has not begun. True if it is cancelled now;
  // false if it is running or has run.
  bool cancel();
  bool cancelled() const;
  bool running() const;
  bool done() const;
  // Waits until done, then rethrows the call's failure, or fails with
  // RuntimeError when the call was cancelled.
  void wait() const;

 protected:
  explicit PoolTask(std::shared_ptr<pool_detail::Shared> shared);

 private:
  friend class WorkerPool;
  friend class Completions;

  enum class State { pending, running, finished, cancelled };

  // Runs the call and keeps its value.
  virtual void invoke() = 0;
  // Drops the callable, and with it whatever it holds.
  virtual void release() = 0;
  // Under the pool's lock: marks the end and tells the waiters.
  void complete_locked(State end);

  std::shared_ptr<pool_detail::Shared> shared_;
  State state_ = State::pending;
  std::exception_ptr failure_;
  std::uint64_t completion_seq_ = 0;
  std::vector<std::pair<std::shared_ptr<pool_detail::Sink>, std::size_t>> sinks_;
};

template <class T>
class PoolFuture final : public PoolTask {
 public:
  PoolFuture(std::shared_ptr<pool_detail::Shared> shared, std::function<T()> fn)
      : PoolTask(std::move(shared)), fn_(std::move(fn)) {}
  // Waits; the call's value, or its failure rethrown.
  const T& result() const {
    wait();
    return *value_;
  }

 private:
  void invoke() override { value_.emplace(fn_()); }
  void release() override { fn_ = nullptr; }

  std::function<T()> fn_;
  std::optional<T> value_;
};

class WorkerPool {
 public:
  // Threads start as calls arrive, at most `max_workers` (at least one),
  // named "{thread_name_prefix}_{N}" from 0.
  WorkerPool(std::size_t max_workers, std::string thread_name_prefix);
  // Shuts down and waits for the workers still attached.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues `fn`; RuntimeError after shutdown.
  template <class F>
  std::shared_ptr<PoolFuture<std::invoke_result_t<F&>>> submit(F fn) {
    using T = std::invoke_result_t<F&>;
    auto task = std::make_shared<PoolFuture<T>>(shared_, std::function<T()>(std::move(fn)));
    enqueue(task);
    return task;
  }

  // Takes no more calls. `cancel_futures` withdraws every call that has not
  // begun. With `wait` it returns once every worker has ended; without, the
  // workers finish what they hold (and what is queued, unless cancelled) on
  // their own and end then, never holding up the process.
  void shutdown(bool wait = true, bool cancel_futures = false);

 private:
  void enqueue(std::shared_ptr<PoolTask> task);
  // A worker's life: takes queued calls until shut down with none left.
  static void work(const std::shared_ptr<pool_detail::Shared>& shared);

  std::shared_ptr<pool_detail::Shared> shared_;
  const std::size_t max_workers_;
  const std::string prefix_;
  std::vector<std::thread> threads_;  // guarded by the pool's lock
};

// Hands out tasks of one pool in the order in which they finish, under one
// deadline for the whole wait, fixed when this is made. Tasks already done
// come first, in the order in which they finished.
class Completions {
 public:
  // No `timeout_s`: no limit.
  Completions(const std::vector<std::shared_ptr<PoolTask>>& tasks, std::optional<double> timeout_s);
  template <class Task>
  Completions(const std::vector<std::shared_ptr<Task>>& tasks, std::optional<double> timeout_s)
      : Completions(std::vector<std::shared_ptr<PoolTask>>(tasks.begin(), tasks.end()), timeout_s) {}

  // The index, in the list given, of the next task to finish; absent once all
  // have been handed out. A task that finished before the deadline is handed
  // out even when asked for later. Fails with FuturesTimeoutError when the
  // deadline passes with none to hand out.
  std::optional<std::size_t> next();
  // As next(), calling `tick` every `every_s` seconds while it waits, with
  // no lock held, on the waiting thread.
  std::optional<std::size_t> next(const std::function<void()>& tick, double every_s);

 private:
  std::shared_ptr<pool_detail::Shared> shared_;
  std::shared_ptr<pool_detail::Sink> sink_;
  std::size_t total_ = 0;
  std::size_t handed_out_ = 0;
  std::optional<std::chrono::steady_clock::time_point> deadline_;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_
