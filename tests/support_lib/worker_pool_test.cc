#include "sync/support/worker_pool.h"

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "sync/support/event.h"
#include "tests/support/outcome.h"

namespace quillmarsh::sync {
namespace {

TEST(WorkerPool, CompletionsComeInTheOrderTheTasksFinish) {
  WorkerPool pool(3, "qm-sync");
  Event gates[3];
  std::vector<std::shared_ptr<PoolFuture<int>>> tasks;
  for (int i = 0; i < 3; ++i) {
    tasks.push_back(pool.submit([&gates, i] {
      gates[i].wait();
      if (i == 1) throw ValueError("task 1 failed");
      return i * 10;
    }));
  }
  Completions done(tasks, std::nullopt);
  for (int i : {2, 0, 1}) {
    gates[i].set();
    EXPECT_EQ(done.next(), std::optional<std::size_t>(i));
  }
  EXPECT_EQ(done.next(), std::nullopt);
  EXPECT_EQ(tasks[2]->result(), 20);
  EXPECT_EQ(tasks[0]->result(), 0);
  EXPECT_THROW(tasks[1]->result(), ValueError);

  // Tasks done before the wait began come in the order they finished too.
  Completions again({tasks[1], tasks[0], tasks[2]}, 0.0);
  EXPECT_EQ(again.next(), std::optional<std::size_t>(2));
  EXPECT_EQ(again.next(), std::optional<std::size_t>(1));
  EXPECT_EQ(again.next(), std::optional<std::size_t>(0));
  EXPECT_EQ(again.next(), std::nullopt);
}

TEST(WorkerPool, TheDeadlineEndsTheWaitButNotWhatFinishedInTime) {
  WorkerPool pool(2, "qm-sync");
  Event gate;
  auto quick = pool.submit([] { return 1; });
  auto slow = pool.submit([&gate] {
    gate.wait();
    return 2;
  });
  quick->wait();
  Completions done(std::vector<std::shared_ptr<PoolTask>>{slow, quick}, 0.0);
  EXPECT_EQ(done.next(), std::optional<std::size_t>(1));
  EXPECT_EQ(testing::outcome([&] { done.next(); }), "FuturesTimeoutError: 1 (of 2) futures unfinished");
  EXPECT_FALSE(slow->done());
  gate.set();
  EXPECT_EQ(slow->result(), 2);
}

// Shutting down without waiting, and the names and number of the threads,
// are what ParallelDownload's timed-out batch relies on and checks.
TEST(WorkerPool, CancelWithdrawsOnlyWhatHasNotBegunAndShutdownWaitsForTheRest) {
  WorkerPool pool(1, "qm-sync");
  Event started, gate;
  auto running = pool.submit([&] {
    started.set();
    gate.wait();
    return 1;
  });
  bool queued_ran = false;
  auto held = std::make_shared<int>(0);
  auto queued = pool.submit([&queued_ran, held] {
    queued_ran = true;
    return 2;
  });
  auto kept = pool.submit([] { return 3; });
  started.wait();

  EXPECT_FALSE(running->cancel());
  EXPECT_TRUE(queued->cancel());
  EXPECT_TRUE(queued->done());
  EXPECT_EQ(held.use_count(), 1);  // the withdrawn call's captures are gone
  EXPECT_THROW(queued->result(), RuntimeError);

  Completions done(std::vector<std::shared_ptr<PoolTask>>{running, queued}, std::nullopt);
  EXPECT_EQ(done.next(), std::optional<std::size_t>(1));
  gate.set();
  EXPECT_EQ(done.next(), std::optional<std::size_t>(0));
  pool.shutdown();
  EXPECT_TRUE(kept->done());
  EXPECT_FALSE(queued_ran);
  EXPECT_THROW(pool.submit([] { return 0; }), RuntimeError);
}

}  // namespace
}  // namespace quillmarsh::sync
