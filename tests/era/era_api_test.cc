#include "sync/era/era_api.h"

#include <gtest/gtest.h>

#include "sync/errors.h"
#include "tests/support/era_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::Fault;
using testing::outcome;
using testing::outcome_and_cause;

Json parsed(const char* text) { return parse_json_text(text); }

TEST(EraNormalize, FlatAndForeignValuesPassThroughAsTheyCame) {
  for (const char* text : {R"({"era_id": 7, "state": "closing", "next_closing_at": 5})", R"([1, 2])", R"("era")",
                           R"(null)", R"({})"}) {
    EXPECT_EQ(_normalize_era_current_response(parsed(text)), parsed(text)) << text;
  }
}

TEST(EraNormalize, AnInnerStateWinsAndTheOuterOnlyFillsAGap) {
  struct Case {
    const char* input;
    const char* expected;
  };
  const Case cases[] = {
      // No inner state: the outer one is taken, other inner keys stay.
      {R"({"era": {"era_id": 7, "min_library_version": "1.2"}, "state": "closing"})",
       R"({"era_id": 7, "min_library_version": "1.2", "state": "closing"})"},
      // An inner state wins, even a null one.
      {R"({"era": {"era_id": 7, "state": "active"}, "state": "closing"})", R"({"era_id": 7, "state": "active"})"},
      {R"({"era": {"era_id": 7, "state": null}, "state": "closing"})", R"({"era_id": 7, "state": null})"},
      // A null outer state fills nothing, and no outer state fills nothing.
      {R"({"era": {"era_id": 7}, "state": null})", R"({"era_id": 7})"},
      {R"({"era": {"era_id": 7}})", R"({"era_id": 7})"},
      // No era object: no era, in the outer state or between eras.
      {R"({"era": null, "state": "closing"})", R"({"era_id": null, "state": "closing"})"},
      {R"({"era": null})", R"({"era_id": null, "state": "between_eras"})"},
      {R"({"era": 7, "state": "active"})", R"({"era_id": null, "state": "active"})"},
      {R"({"era": [], "era_id": 3})", R"({"era_id": null, "state": "between_eras"})"},
  };
  for (const Case& c : cases) {
    const Json input = parsed(c.input);
    const Json untouched = input;
    const Json normalized = _normalize_era_current_response(input);
    EXPECT_EQ(normalized, parsed(c.expected)) << c.input;
    EXPECT_EQ(input, untouched) << c.input;
    EXPECT_EQ(normalized.contains("state"), parsed(c.expected).contains("state")) << c.input;
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

  publish_era(7);
  EXPECT_EQ(manager_->_confirm_active_era(7)["era_id"], 7);
  // Each gate asks the server afresh, with the caller's token.
  const auto requests = api_.requests();
  ASSERT_EQ(requests.size(), 4u);
  EXPECT_EQ(requests.back().header("Authorization"), "Bearer test-token");
}

TEST_F(EraGates, ClosingPassesOnlyWhenAllowedAndOtherStatesNever) {
  publish_era(7, "closing");
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7); }),
            "EraError: Active era confirmation for era_id=7 returned state='closing'");
  EXPECT_EQ(outcome([&] { manager_->_check_transition_superseded(7); }),
            "EraError: Active era confirmation for era_id=7 returned state='closing'");
  EXPECT_EQ(manager_->_confirm_active_era(7, true)["state"], "closing");
  EXPECT_EQ(manager_->_check_transition_superseded(6, true), 7);

  publish_era(7, std::nullopt);  // no state key: no default in the gates
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7, true); }),
            "EraError: Active era confirmation for era_id=7 returned state=None");
  answer_era(wrapped_era(Json{{"era_id", 7}, {"state", nullptr}}, Json("active")));
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7, true); }),
            "EraError: Active era confirmation for era_id=7 returned state=None");
  publish_era(7, "between_eras");
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7, true); }),
            "EraError: Active era confirmation for era_id=7 returned state='between_eras'");
}

TEST_F(EraGates, NoUsableEraFailsWithTheParseMessageBeforeTheState) {
  const char* bodies[] = {
      R"({"era": null, "state": "closing"})",        // between eras, outer state closing
      R"({"era": null})",                            // between eras
      R"({"era_id": null, "state": "active"})",      // flat, no id
      R"({"era_id": "seven", "state": "active"})",   // id that is no number
      R"({"state": "active"})",                      // id missing
      R"([7])",                                      // not a map
      "{\"era_id\": 7, \"state\": \"active\"",       // cut JSON
      "{\"era_id\": 7, \"state\": \"\xff\"}",        // not UTF-8
  };
  for (const char* body : bodies) {
    serve(body);
    const auto [failure, cause] = outcome_and_cause([&] { manager_->_fetch_active_era_for_transition(true); });
    EXPECT_EQ(failure, "EraError: Failed to parse active era response during transition") << body;
    EXPECT_NE(cause, "") << body;
  }
}

TEST_F(EraGates, ANonOkAnswerFailsWithItsStatus) {
  publish_era(7);
  api_.fault("/era/current", Fault{.status = 503, .body = "busy"});
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7); }), "EraError: Failed to confirm active era: HTTP 503");
  EXPECT_EQ(outcome([&] { manager_->_check_transition_superseded(7); }),
            "EraError: Failed to confirm active era: HTTP 503");
}

TEST_F(EraGates, SupersededReturnsANewerEraFailsOnAnOlderAndConfirmFailsOnBoth) {
  publish_era(8);
  EXPECT_EQ(manager_->_check_transition_superseded(7), 8);
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7); }),
            "EraError: Active era_id=8 does not match requested transition era_id=7");

  publish_era(6);
  EXPECT_EQ(outcome([&] { manager_->_check_transition_superseded(7); }),
            "EraError: Active era_id=6 does not match requested transition era_id=7");
  EXPECT_EQ(outcome([&] { manager_->_confirm_active_era(7); }),
            "EraError: Active era_id=6 does not match requested transition era_id=7");

  publish_era(7);
  EXPECT_EQ(manager_->_check_transition_superseded(7), std::nullopt);
  EXPECT_EQ(manager_->_confirm_active_era(7)["era_id"], 7);
}

}  // namespace
}  // namespace quillmarsh::sync
