#include "sync/support/json_text.h"

#include <gtest/gtest.h>

#include <limits>

#include "sync/errors.h"
#include "sync/support/integer.h"

namespace quillmarsh::sync {
namespace {

// Round trips, the ASCII-only form and the refusal of bad input are the fuzz
// target's properties; the exact bytes are pinned here.
TEST(JsonText, WritesTheExactTextForm) {
  const std::string text = R"({"zeta": 1, "alpha": {"b": [1, 2.5, true, null], "a": "x/y"}, "empty": {}, "list": []})";
  Json value = Json::object();
  value["name"] = "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80";  // é € 😀
  value["ctl"] = std::string("a\"b\\c\n\t\x01\x7f", 9);
  const std::pair<Json, std::string> cases[] = {
      // Member order is kept, separators carry one blank, "/" is not escaped.
      {parse_json_text(text), text},
      {value, "{\"name\": \"caf\\u00e9 \\u20ac \\ud83d\\ude00\", \"ctl\": \"a\\\"b\\\\c\\n\\t\\u0001\x7f\"}"},
      // Floats take the shortest text that reads back the same.
      {1.0, "1.0"}, {0.1, "0.1"}, {1.5e16, "1.5e+16"}, {123456789012345.0, "123456789012345.0"}, {1e-5, "1e-05"},
      {0.0001, "0.0001"},
  };
  for (const auto& [json, expected] : cases) EXPECT_EQ(json_text(json), expected);
}

TEST(JsonText, ParserKeepsOrderAndLastValueOfARepeatedKey) {
  // Past the size where the parser switches to an index, too.
  std::string text = "{";
  for (int i = 0; i < 40; ++i) text += "\"k" + std::to_string(i) + "\": " + std::to_string(i) + ", ";
  text += "\"k3\": 99, \"k39\": 100}";
  const Json value = parse_json_text(text);
  ASSERT_EQ(value.size(), 40u);
  EXPECT_EQ(value.begin().key(), "k0");
  EXPECT_EQ(value["k3"], 99);
  EXPECT_EQ(value["k39"], 100);
  EXPECT_EQ(json_text(parse_json_text(R"({"b": 1, "a": 2, "b": 3})")), R"({"b": 3, "a": 2})");
}

TEST(JsonText, NestingIsBoundedSoAHostileDocumentCannotExhaustTheStack) {
  // Deep enough that copying or printing the value would overflow the stack.
  const std::size_t deep = 200000;
  EXPECT_THROW(parse_json_text(std::string(deep, '[') + std::string(deep, ']')), ValueError);
  EXPECT_THROW(parse_json_text(std::string(1001, '[') + std::string(1001, ']')), ValueError);
  std::string ok;
  for (int i = 0; i < 1000; ++i) ok += "{\"a\": ";
  ok += "1" + std::string(1000, '}');
  EXPECT_EQ(json_text(parse_json_text(ok)), ok);
}

// The fuzz target checks text against strtoll and every JSON kind by its
// rule, floats truncated toward zero and those out of range refused among
// them; what JSON text cannot carry (NaN, infinities) is checked here.
TEST(IntegerOf, RefusesWhatJsonTextCannotCarry) {
  EXPECT_THROW(integer_of(Json(std::numeric_limits<double>::quiet_NaN())), ValueError);
  EXPECT_THROW(integer_of(Json(-std::numeric_limits<double>::infinity())), ValueError);
}

}  // namespace
}  // namespace quillmarsh::sync
