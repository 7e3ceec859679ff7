#include "sync/support/integer.h"

#include <gtest/gtest.h>

#include <limits>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

// The fuzz target checks text against strtoll and every JSON kind by its
// rule; what JSON text cannot carry (NaN, infinities) is checked here.
TEST(IntegerOf, TruncatesFloatsAndRefusesThoseNoIntegerHolds) {
  EXPECT_EQ(integer_of(Json(-2.9)), -2);  // toward zero, not down
  EXPECT_THROW(integer_of(Json(std::numeric_limits<double>::quiet_NaN())), ValueError);
  EXPECT_THROW(integer_of(Json(-std::numeric_limits<double>::infinity())), ValueError);
  EXPECT_THROW(integer_of(Json(1e19)), ValueError);
}

}  // namespace
}  // namespace quillmarsh::sync
