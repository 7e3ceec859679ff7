// The era monitor: what each answer of /era/current makes it do, the
// transitions it runs and the nudge after a new era. Single polls are driven
// on monitors that were never started.
#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/collaborators/agent_onboarding.h"
#include "sync/era/era_thread.h"
#include "sync/errors.h"
#include "tests/support/era_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::EventLog;

const std::string kCancelled = "Era transition cancelled \u2014 resuming normal operation.";

// Logs "nudge EVENT NEW prev=PREV".
class RecordingOnboarding : public AgentOnboarding {
 public:
  explicit RecordingOnboarding(EventLog& log) : log_(log) {}
  void update_nudge(const std::string& event, std::int64_t new_era_id,
                    std::optional<std::int64_t> previous_era_id) override {
    log_.add("nudge " + event + " " + std::to_string(new_era_id) +
             " prev=" + (previous_era_id ? std::to_string(*previous_era_id) : std::string("None")));
  }

 private:
  EventLog& log_;
};

class EraMonitor : public EraFixture {
 protected:

  // A monitor of `manager` on the API server, with the fixture's callbacks.
  std::shared_ptr<EraThread> monitor(std::shared_ptr<SyncManager> manager) {
    return std::make_shared<EraThread>(api_.base_url(), [] { return std::string("era-token"); },
                                       std::move(manager), 600.0, kill_fn(), restart_fn());
  }

  std::size_t count(const std::string& event) const {
    std::size_t n = 0;
    for (const std::string& e : events_.events()) n += e == event;
    return n;
  }

  testing::InSlot<AgentOnboarding> onboarding_{agent_onboarding_slot(), std::make_shared<RecordingOnboarding>(events_)};
};

// One row of the monitor's state table: its state before, the server's
// answer, and what must follow.
struct Row {
  const char* name;
  bool in_closing;
  Json known;  // null: no era known
  Json answer;
  std::optional<std::string> failure;  // the transition was entered: its failure's recorded context
  bool restart;                        // the close was called off
  bool in_closing_after;
};

// Over a manager with no manifest, every transition fails (a "closing" era
// fails the gate, an active one has no manifest to fetch), so the record of
// the failure shows which branch called it; the failing run leaves the
// known era as it was in every row.
TEST_F(EraMonitor, EachStateAndAnswerLeadsToItsAction) {
  const std::vector<Row> rows = {
      {"active, era = K", false, 1, flat_era(1, "active"), std::nullopt, false, false},
      {"active, era != K", false, 1, flat_era(2, "active"), "new era", false, false},
      {"lower era counts", false, 3, flat_era(2, "active"), "new era", false, false},
      {"active, K absent", false, nullptr, flat_era(5, "active"), std::nullopt, false, false},
      {"closing, era = K", false, 1, flat_era(1, "closing"), "closing", false, true},
      {"closing, K absent", false, nullptr, flat_era(3, "closing"), "closing", false, true},
      // The transition is called with no era: with no manifest to compare
      // it with, it runs until its first look at the era fails.
      {"closing without era id", false, 1, wrapped_era(nullptr, Json("closing")), "closing", false, true},
      {"in closing: closing, era = K", true, 1, flat_era(1, "closing"), std::nullopt, false, true},
      {"in closing: closing, era != K", true, 1, flat_era(2, "closing"), "new era", false, false},
      {"in closing: active, era = K", true, 1, flat_era(1, "active"), std::nullopt, true, false},
      {"in closing: era as text is another value", true, 7, flat_era("7", "active"), "new era", false, false},
      {"in closing: era as float equals K", true, 7, flat_era(7.0, "active"), std::nullopt, true, false},
      // Compared as they stand: text that is no number is another era, and
      // the transition's gate is what refuses it.
      {"era as text without a number", true, 1, flat_era("seven", "active"), "new era", false, false},
      {"K as text, era as text", false, "seven", flat_era("seven", "active"), std::nullopt, false, false},
      {"K as text, another era", false, "seven", flat_era(8, "active"), "new era", false, false},
      {"in closing: no state means active", true, 1, flat_era(1, std::nullopt), std::nullopt, true, false},
      {"in closing: active, no era, K absent", true, nullptr, wrapped_era(nullptr, Json("active")), std::nullopt, true,
       false},
      {"in closing: active, K absent", true, nullptr, flat_era(2, "active"), std::nullopt, false, true},
      {"in closing: active, era != K", true, 1, flat_era(2, "active"), "new era", false, false},
      {"between eras", false, 1, wrapped_era(nullptr), std::nullopt, false, false},
      {"in closing: between eras", true, 1, wrapped_era(nullptr), std::nullopt, false, true},
      {"unknown state, era = K", false, 1, flat_era(1, "paused"), std::nullopt, false, false},
      {"null state, era = K, in closing", true, 1, Json{{"era_id", 1}, {"state", nullptr}}, std::nullopt, false, true},
  };
  auto manager = make_manager();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    events_.clear();
    log_.clear();
    answer_era(row.answer);
    auto mon = monitor(manager);
    mon->_last_known_era_id = row.known;
    mon->_in_closing = row.in_closing;

    mon->_poll_once();

    EXPECT_EQ(count("kill"), row.failure ? 1u : 0u);
    EXPECT_EQ(count("restart"), row.restart ? 1u : 0u);
    EXPECT_EQ(log_.count(LogLevel::info, kCancelled), row.restart ? 1u : 0u);
    EXPECT_EQ(mon->_in_closing, row.in_closing_after);
    EXPECT_EQ(mon->_last_known_era_id, row.known);
    EXPECT_EQ(mon->_transition_failed, row.failure.has_value());
    if (row.failure) {
      ASSERT_TRUE(mon->_last_transition_error.has_value());
      EXPECT_TRUE(mon->_last_transition_error->starts_with(*row.failure + ": ")) << *mon->_last_transition_error;
      EXPECT_EQ(logged_starting("Trigger era transition (" + *row.failure + ") failed: "), 1u);
    } else {
      EXPECT_FALSE(mon->_last_transition_error.has_value());
    }
    // A "closing" answer announces its close; no answer here names a time.
    EXPECT_EQ(log_.count(LogLevel::info, "Scheduled close announced at None. Continue normal operation."),
              row.failure == "closing" ? 1u : 0u);
    for (const std::string& event : events_.events()) EXPECT_FALSE(event.starts_with("nudge")) << event;
    EXPECT_EQ(logged_starting("Era poll failed: "), 0u);
  }
}

TEST_F(EraMonitor, UnansweredOrUnreadablePollsChangeNothing) {
  auto mon = monitor(make_manager());
  mon->_last_known_era_id = 1;
  mon->_in_closing = true;
  answer_era(flat_era(2, "active"));  // would start a transition if it came through
  api_.fault("/era/current", {.status = 503, .times = 1});
  mon->_poll_once();
  EXPECT_TRUE(log_.records().empty());

  for (const char* body : {"{not json", "[1, 2]"}) {
    api_.put("/era/current", body);
    mon->_poll_once();
  }
  EXPECT_EQ(logged_starting("Era poll failed: "), 2u);
  EXPECT_EQ(log_.records().size(), 2u);
  EXPECT_TRUE(events_.events().empty());
  EXPECT_EQ(mon->_last_known_era_id, 1);
  EXPECT_TRUE(mon->_in_closing);
  EXPECT_FALSE(mon->_transition_failed);

  // A token source that fails is one more failed poll.
  log_.clear();
  auto tokenless = std::make_shared<EraThread>(
      api_.base_url(), []() -> std::string { throw AuthError("token store locked"); }, make_manager());
  tokenless->_poll_once();
  EXPECT_EQ(log_.count(LogLevel::warning, "Era poll failed: token store locked"), 1u);
}

TEST_F(EraMonitor, AClosingWithoutAnEraTouchesNothingANewEraIsRetriedAndItsSuccessNudges) {
  auto manager = synced_manager(1, {{"features/a/one.bin", "era one"}, {"features/a/same.bin", "kept"}});
  auto mon = monitor(manager);
  mon->_last_known_era_id = 1;
  // With an era on disk, a close that names no era cannot be ordered against
  // it: the transition fails before it has touched anything.
  answer_era(wrapped_era(nullptr, Json("closing")));
  mon->_poll_once();
  EXPECT_EQ(mon->_last_transition_error, "closing: '>' not supported between instances of 'NoneType' and 'int'");
  EXPECT_TRUE(mon->_in_closing);
  EXPECT_TRUE(events_.events().empty());
  EXPECT_FALSE(path_exists(path(".transition_lock")));
  EXPECT_FALSE(manager->_in_transition);

  publish_era_data(2, {{"features/a/one.bin", "era two"}, {"features/a/same.bin", "kept"}});

  // The poll gets through; the transition's own look at the era does not.
  api_.fault("/era/current", {.status = 503, .times = 1, .skip = 1});
  mon->_poll_once();
  EXPECT_EQ(mon->_last_known_era_id, 1);
  EXPECT_EQ(mon->_last_transition_error, "new era: Failed to confirm active era: HTTP 503");
  EXPECT_EQ(manager->get_manifest()->era_id, 1);
  EXPECT_EQ(count("nudge era_change 2 prev=1"), 0u);

  events_.clear();
  mon->_poll_once();
  EXPECT_EQ(manager->get_manifest()->era_id, 2);
  EXPECT_EQ(mon->_last_known_era_id, 2);
  EXPECT_FALSE(mon->_transition_failed);
  EXPECT_FALSE(mon->_last_transition_error.has_value());
  const std::vector<std::string> events = events_.events();
  ASSERT_GE(events.size(), 3u);
  EXPECT_EQ(events.front(), "kill");
  EXPECT_EQ(count("restart"), 1u);
  EXPECT_EQ(events.back(), "nudge era_change 2 prev=1");
}

}  // namespace
}  // namespace quillmarsh::sync
