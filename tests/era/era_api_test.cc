#include "sync/era/era_api.h"

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/era_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::outcome;
using testing::outcome_and_cause;

TEST(EraNormalize, AnInnerStateWinsAndTheOuterOnlyFillsAGap) {
  const std::pair<const char*, const char*> cases[] = {
      // Flat and foreign values pass through as they came.
      {R"({"era_id": 7, "state": "closing", "next_closing_at": 5})",
       R"({"era_id": 7, "state": "closing", "next_closing_at": 5})"},
      {R"([1, 2])", R"([1, 2])"},
      // No inner state: the outer one is taken, other inner keys stay.
      {R"({"era": {"era_id": 7, "min_library_version": "1.2"}, "state": "closing"})",
       R"({"era_id": 7, "min_library_version": "1.2", "state": "closing"})"},
      // An inner state wins, even a null one.
      {R"({"era": {"era_id": 7, "state": "active"}, "state": "closing"})", R"({"era_id": 7, "state": "active"})"},
      {R"({"era": {"era_id": 7, "state": null}, "state": "closing"})", R"({"era_id": 7, "state": null})"},
      // A null outer state fills nothing.
      {R"({"era": {"era_id": 7}, "state": null})", R"({"era_id": 7})"},
      // No era object: no era, in the outer state or between eras.
      {R"({"era": null, "state": "closing"})", R"({"era_id": null, "state": "closing"})"},
      {R"({"era": 7, "state": "active"})", R"({"era_id": null, "state": "active"})"},
      {R"({"era": [], "era_id": 3})", R"({"era_id": null, "state": "between_eras"})"},
  };
  for (const auto& [input_text, expected] : cases) {
    const Json input = parse_json_text(input_text);
    const Json untouched = input;
    EXPECT_EQ(_normalize_era_current_response(input), parse_json_text(expected)) << input_text;
    EXPECT_EQ(input, untouched) << input_text;
  }
}

class EraGates : public EraFixture {
 protected:
  void SetUp() override {
    EraFixture::SetUp();
    manager_ = make_manager();
  }
  void serve(const std::string& body) { api_.put("/era/current", body, {{"Content-Type", "application/json"}}); }

  std::shared_ptr<SyncManager> manager_;
};

TEST_F(EraGates, EitherShapeAndATextualEraIdPass) {
  serve(R"({"era": {"era_id": "7", "min_library_version": "2.0"}, "state": "active"})");
  const Json era = manager_->_confirm_active_era(7);
  EXPECT_EQ(era["min_library_version"], "2.0");
  EXPECT_EQ(era["state"], "active");
  EXPECT_EQ(manager_->_check_transition_superseded(7), std::nullopt);
  const auto [active_era_id, era_manifest] = manager_->_fetch_active_era_for_transition();
  EXPECT_EQ(active_era_id, 7);
  EXPECT_EQ(era_manifest["era_id"], "7");  // the map as normalised, not rewritten
  // Each gate asks the server afresh, with the caller's token.
  const auto requests = api_.requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests.back().header("Authorization"), "Bearer test-token");
}

TEST_F(EraGates, ClosingPassesOnlyWhenAllowedAndOtherStatesNever) {
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
}

TEST_F(EraGates, NoUsableEraFailsWithTheParseMessageBeforeTheState) {
  for (const char* body : {
           R"({"era": null, "state": "closing"})",     // between eras, outer state closing
           R"({"era_id": "seven", "state": "active"})",  // id that is no number
           R"([7])",                                     // not a map
           "{\"era_id\": 7, \"state\": \"\xff\"}",       // not UTF-8
       }) {
    serve(body);
    const auto [failure, cause] = outcome_and_cause([&] { manager_->_fetch_active_era_for_transition(true); });
    EXPECT_EQ(failure, "EraError: Failed to parse active era response during transition") << body;
    EXPECT_NE(cause, "") << body;
  }
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
