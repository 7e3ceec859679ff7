#include "sync/support/integer.h"

#include <gtest/gtest.h>

#include <limits>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

// The fuzz target checks text against strtoll and every JSON kind by its
// rule; what JSON text cannot carry (NaN, infinities) is checked here.
TEST(IntegerOf, ConvertsEachKindByItsRuleAndRefusesTheRest) {
  EXPECT_EQ(integer_of(Json(-2.9)), -2);  // toward zero, not down
  EXPECT_EQ(integer_of(Json(true)), 1);
  EXPECT_EQ(integer_of(Json(" +12\n")), 12);
  EXPECT_THROW(integer_of(Json("1.5")), ValueError);
  EXPECT_THROW(integer_of(Json(std::numeric_limits<double>::quiet_NaN())), ValueError);
  EXPECT_THROW(integer_of(Json(-std::numeric_limits<double>::infinity())), ValueError);
  EXPECT_THROW(integer_of(Json(1e19)), ValueError);
  EXPECT_THROW(integer_of(Json(nullptr)), TypeError);
}

}  // namespace
}  // namespace quillmarsh::sync
