#include "sync/era/era_api.h"

#include <gtest/gtest.h>

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

TEST_F(EraGates, EitherShapeAndATextualEraIdPass) {
  answer_era(wrapped_era(Json{{"era_id", "7"}, {"min_library_version", "2.0"}}, Json("active")));
  const Json era = manager_->_confirm_active_era(7);
  EXPECT_EQ(era["min_library_version"], "2.0");
  EXPECT_EQ(era["state"], "active");
  EXPECT_EQ(manager_->_check_transition_superseded(7), std::nullopt);
  const auto [active_era_id, era_manifest] = manager_->_fetch_active_era_for_transition();
  EXPECT_EQ(active_era_id, 7);
  EXPECT_EQ(era_manifest["era_id"], "7");  // the map as normalised, not rewritten
  EXPECT_EQ(api_.request_count("/era/current"), 3u);  // each gate asks afresh
}

TEST_F(EraGates, ClosingPassesOnlyWhenAllowedAndNoOtherStateOrEraDoes) {
  publish_era(7, "closing");
  EXPECT_EQ(outcome([&] { manager_->_check_transition_superseded(7); }),
            "EraError: Active era confirmation for era_id=7 returned state='closing'");
  EXPECT_EQ(manager_->_confirm_active_era(7, true)["state"], "closing");
  EXPECT_EQ(manager_->_check_transition_superseded(6, true), 7);

  // No default state in the gates, whatever shape leaves it out or null.
  for (const Json& body :
       {flat_era(7, std::nullopt), wrapped_era(Json{{"era_id", 7}, {"state", nullptr}}, Json("active"))}) {
    answer_era(body);
    EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7, true); }),
              "EraError: Active era confirmation for era_id=7 returned state=None");
  }

  // No usable era fails with the parse message, before the state is read.
  answer_era(wrapped_era(nullptr, Json("closing")));
  const auto [failure, cause] = outcome_and_cause([&] { manager_->_fetch_active_era_for_transition(true); });
  EXPECT_EQ(failure, "EraError: Failed to parse active era response during transition");
  EXPECT_NE(cause, "");
}

TEST_F(EraGates, SupersededReturnsANewerEraFailsOnAnOlderAndConfirmFailsOnBoth) {
  publish_era(8);
  EXPECT_EQ(manager_->_check_transition_superseded(7), 8);
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7); }),
            "EraError: Active era_id=8 does not match requested transition era_id=7");
  publish_era(6);
  EXPECT_EQ(outcome([&] { manager_->_check_transition_superseded(7); }),
            "EraError: Active era_id=6 does not match requested transition era_id=7");
}

}  // namespace
}  // namespace quillmarsh::sync
