#include "sync/era/era_api.h"

#include <gtest/gtest.h>

#include <functional>

#include "sync/errors.h"
#include "tests/support/era_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::outcome;
using testing::outcome_and_cause;

class EraGates : public EraFixture {
 protected:
  void SetUp() override {
    EraFixture::SetUp();
    manager_ = make_manager();
  }
  std::shared_ptr<SyncManager> manager_;
};

// Each gate asks the server afresh; what it returns, or how it fails, for
// each answer. No gate assumes a state that an answer leaves out or nulls.
TEST_F(EraGates, EachGateOnEachAnswer) {
  const std::string closing = "EraError: Active era confirmation for era_id=7 returned state='closing'";
  const std::string no_state = "EraError: Active era confirmation for era_id=7 returned state=None";
  const std::string other = "EraError: Active era_id=8 does not match requested transition era_id=7";
  // Gates over era 7, rendered as text: confirm gives the era's state,
  // superseded the newer era or None, fetch the active era's id.
  const auto confirm = [this](bool allow) { return manager_->_confirm_active_era(7, allow)["state"].dump(); };
  const auto superseded = [this](std::int64_t era, bool allow) {
    const auto newer = manager_->_check_transition_superseded(era, allow);
    return newer ? std::to_string(*newer) : std::string("None");
  };
  struct Case {
    Json answer;
    std::function<std::string()> gate;
    std::string expected;
  };
  const Json textual = wrapped_era(Json{{"era_id", "7"}, {"min_library_version", "2.0"}}, Json("active"));
  const Json null_state = wrapped_era(Json{{"era_id", 7}, {"state", nullptr}}, Json("active"));
  const Case cases[] = {
      {textual, [&] { return confirm(false); }, "\"active\""},
      {textual, [&] { return superseded(7, false); }, "None"},
      {flat_era(7, "closing"), [&] { return superseded(7, false); }, closing},
      {flat_era(7, "closing"), [&] { return confirm(true); }, "\"closing\""},
      {flat_era(7, "closing"), [&] { return superseded(6, true); }, "7"},
      {flat_era(7, std::nullopt), [&] { return confirm(true); }, no_state},
      {null_state, [&] { return confirm(true); }, no_state},
      {flat_era(8), [&] { return superseded(7, false); }, "8"},
      {flat_era(8), [&] { return confirm(false); }, other},
      {flat_era(6), [&] { return superseded(7, false); },
       "EraError: Active era_id=6 does not match requested transition era_id=7"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer.dump());
    answer_era(c.answer);
    std::string got;
    const std::string failure = outcome([&] { got = c.gate(); });
    EXPECT_EQ(failure == "ok" ? got : failure, c.expected);
  }

  // The era map as normalised, not rewritten.
  answer_era(textual);
  EXPECT_EQ(manager_->_confirm_active_era(7)["min_library_version"], "2.0");
  const auto [active_era_id, era_manifest] = manager_->_fetch_active_era_for_transition();
  EXPECT_EQ(active_era_id, 7);
  EXPECT_EQ(era_manifest["era_id"], "7");
  EXPECT_EQ(api_.request_count("/era/current"), std::size(cases) + 2);

  // No usable era fails with the parse message, before the state is read.
  answer_era(wrapped_era(nullptr, Json("closing")));
  const auto [failure, cause] = outcome_and_cause([&] { manager_->_fetch_active_era_for_transition(true); });
  EXPECT_EQ(failure, "EraError: Failed to parse active era response during transition");
  EXPECT_NE(cause, "");
}

}  // namespace
}  // namespace quillmarsh::sync
