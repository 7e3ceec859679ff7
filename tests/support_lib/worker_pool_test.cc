#include "sync/support/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>

#include "sync/errors.h"
#include "sync/support/event.h"

namespace quillmarsh::sync {
namespace {

// A timed-out batch shuts its pool without waiting: what runs finishes by
// itself, what waits is withdrawn with its captures, and nothing more is
// taken. A plain shutdown, which runs what is queued and waits for it, ends
// every parallel download; the Download suites see it there.
TEST(WorkerPool, ACancellingShutdownWithdrawsWhatHasNotBegun) {
  // Held by the calls too: a detached worker may outlive this scope.
  struct State {
    Event started, gate, finished;
    std::atomic<int> ran{0};
  };
  auto st = std::make_shared<State>();
  auto held = std::make_shared<int>(0);
  {
    WorkerPool pool(1, "qm-sync");
    pool.submit([st] {
      st->started.set();
      st->gate.wait();
      ++st->ran;
      st->finished.set();
      throw ValueError("a failure let out must not end the process");
    });
    pool.submit([st, held] { ++st->ran; });
    st->started.wait();
    pool.shutdown(false, true);
    EXPECT_EQ(held.use_count(), 1);
    st->gate.set();
    st->finished.wait();
    EXPECT_THROW(pool.submit([] {}), RuntimeError);
  }
  EXPECT_EQ(st->ran.load(), 1);
}

}  // namespace
}  // namespace quillmarsh::sync
