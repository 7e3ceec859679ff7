// A small pool of worker threads for independent calls. A call reports its
// outcome itself; the pool only runs it.
//
//   WorkerPool pool(4, "qm-sync");
//   pool.submit([&] { work(); });
//   pool.shutdown();
#ifndef QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_
#define QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace quillmarsh::sync {

namespace pool_detail {
struct Shared;
}  // namespace pool_detail

class WorkerPool {
 public:
  // Threads start as calls arrive, at most `max_workers` (at least one),
  // named "{thread_name_prefix}_{N}" from 0.
  WorkerPool(std::size_t max_workers, std::string thread_name_prefix);
  // Shuts down and waits for the workers still attached.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  // Queues `fn`; RuntimeError after shutdown. A failure `fn` lets out is
  // dropped: it has no one to go to.
  void submit(std::function<void()> fn);

  // Takes no more calls. `cancel_queued` withdraws every call that has not
  // begun, dropping what it holds. With `wait` it returns once every worker
  // has ended; without, the workers finish what they hold (and what is
  // queued, unless withdrawn) on their own and end then, never holding up
  // the process.
  void shutdown(bool wait = true, bool cancel_queued = false);

 private:
  // A worker's life: takes queued calls until shut down with none left.
  static void work(const std::shared_ptr<pool_detail::Shared>& shared);

  std::shared_ptr<pool_detail::Shared> shared_;
  const std::size_t max_workers_;
  const std::string prefix_;
  std::vector<std::thread> threads_;  // guarded by the pool's lock
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_WORKER_POOL_H_
