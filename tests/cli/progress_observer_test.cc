// The optional progress observer through which qmsync shows a download.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync::testing {
namespace {

class ProgressObserverTest : public SyncFixture {};

TEST_F(ProgressObserverTest, ToldOfEachFileASyncOrARepairBringsAndAThrowingOneChangesNothing) {
  Json files = Json::object();
  files["features/u/a.bin"] = store_file("features/u/a.bin", std::string(10, 'a'), "feature");
  files["features/u/b.bin"] = store_file("features/u/b.bin", std::string(200, 'b'), "feature");
  files["docs/c.txt"] = store_file("docs/c.txt", std::string(3000, 'c'));
  publish(with_artefacts(manifest(1, 1, files)));
  const struct {
    const char* name;
    bool one_by_one, throws;
  } cases[] = {{"a parallel batch", false, false}, {"one by one", true, false}, {"a throwing observer", true, true}};
  std::shared_ptr<SyncManager> manager;
  TempDir dirs[std::size(cases)];
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.name);
    if (c.one_by_one) env_.set("QUILLMARSH_SYNC_MAX_CONCURRENCY", "1");
    manager = SyncManager::create(dirs[i].path(), api_.base_url(), [] { return std::string("t"); });
    std::vector<DownloadProgress> calls;
    const auto caller = std::this_thread::get_id();
    bool on_caller = true;
    manager->set_progress_observer([&](const DownloadProgress& p) {
      on_caller = on_caller && std::this_thread::get_id() == caller;
      calls.push_back(p);
      if (c.throws) throw std::runtime_error("display broke");
    });
    EXPECT_EQ(manager->sync().bytes_downloaded, 3210);
    EXPECT_TRUE(manager->verify().valid);
    // One call at the start and one per completed file; on a slow run, more
    // between them as bytes arrive. Neither count goes back.
    ASSERT_GE(calls.size(), 4u);
    EXPECT_TRUE(on_caller);
    for (std::size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].files_selected, 3);
      EXPECT_EQ(calls[i].bytes_selected, 3210);
      if (i == 0) continue;
      EXPECT_GE(calls[i].bytes_done, calls[i - 1].bytes_done);
      const std::int64_t step = calls[i].files_done - calls[i - 1].files_done;
      EXPECT_TRUE(step == 0 || step == 1) << i;
    }
    EXPECT_EQ(calls.front().files_done, 0);
    EXPECT_EQ(calls.front().bytes_done, 0);
    EXPECT_EQ(calls.back().files_done, 3);
    EXPECT_EQ(calls.back().bytes_done, 3210);
  }

  std::vector<DownloadProgress> calls;
  manager->set_progress_observer([&](const DownloadProgress& p) { calls.push_back(p); });
  // A path the manifest does not list is passed over and not counted.
  manager->repair({"docs/c.txt", "not/listed.bin", "features/u/a.bin"});
  ASSERT_GE(calls.size(), 3u);
  EXPECT_EQ(calls.back().files_done, 2);
  EXPECT_EQ(calls.back().files_selected, 2);
  EXPECT_EQ(calls.back().bytes_done, 3010);
  EXPECT_EQ(calls.back().bytes_selected, 3010);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
