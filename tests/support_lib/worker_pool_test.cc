#include "sync/support/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>

#include "sync/errors.h"
#include "sync/support/event.h"

namespace quillmarsh::sync {
namespace {

// A timed-out batch shuts its pool without waiting: what runs finishes by
// itself, what waits is withdrawn with its captures, and nothing more is
// taken. A plain shutdown runs what is queued and waits for it.
TEST(WorkerPool, ShutdownWithdrawsWhatHasNotBegunOrWaitsForIt) {
  for (const bool cancel : {true, false}) {
    SCOPED_TRACE(cancel);
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
        throw ValueError("a failure let out leaves the worker alive");
      });
      pool.submit([st, held] { ++st->ran; });
      st->started.wait();
      if (cancel) {
        pool.shutdown(false, true);
        EXPECT_EQ(held.use_count(), 1);
        st->gate.set();
        st->finished.wait();
      } else {
        st->gate.set();
        pool.shutdown();
        EXPECT_EQ(held.use_count(), 1);
      }
      EXPECT_THROW(pool.submit([] {}), RuntimeError);
    }
    EXPECT_EQ(st->ran.load(), cancel ? 1 : 2);
  }
}

}  // namespace
}  // namespace quillmarsh::sync
