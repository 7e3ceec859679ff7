#include "sync/support/integer.h"

#include <gtest/gtest.h>

#include <limits>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

TEST(IntegerOf, ConvertsEachKindByItsRule) {
  EXPECT_EQ(integer_of(Json(42)), 42);
  EXPECT_EQ(integer_of(Json(-7)), -7);
  EXPECT_EQ(integer_of(Json(2.9)), 2);
  EXPECT_EQ(integer_of(Json(-2.9)), -2);  // toward zero, not down
  EXPECT_EQ(integer_of(Json(true)), 1);
  EXPECT_EQ(integer_of(Json(false)), 0);
  EXPECT_EQ(integer_of(Json(" +12\n")), 12);
  EXPECT_EQ(integer_of(Json("-0012")), -12);
  EXPECT_EQ(integer_of(Json("-9223372036854775808")), std::numeric_limits<std::int64_t>::min());
}

TEST(IntegerOf, RefusesTextThatIsNotAnInteger) {
  for (const char* text : {"", " ", "1.5", "1e3", "0x10", "12a", "+", "- 1", "1 2", "9223372036854775808"}) {
    EXPECT_THROW(integer_of(Json(text)), ValueError) << text;
  }
  EXPECT_THROW(integer_of(Json(std::numeric_limits<double>::quiet_NaN())), ValueError);
  EXPECT_THROW(integer_of(Json(std::numeric_limits<double>::infinity())), ValueError);
  EXPECT_THROW(integer_of(Json(1e19)), ValueError);
  EXPECT_THROW(integer_of(Json(std::numeric_limits<std::uint64_t>::max())), ValueError);
}

TEST(IntegerOf, RefusesOtherKindsWithTypeError) {
  EXPECT_THROW(integer_of(Json(nullptr)), TypeError);
  EXPECT_THROW(integer_of(Json::array()), TypeError);
  EXPECT_THROW(integer_of(Json::object()), TypeError);
}

}  // namespace
}  // namespace quillmarsh::sync
