// "The integer of X": the one conversion the component applies wherever a
// value from JSON, a header or the environment must become an integer.
#ifndef QUILLMARSH_SYNC_SUPPORT_INTEGER_H_
#define QUILLMARSH_SYNC_SUPPORT_INTEGER_H_

#include <cstdint>
#include <string_view>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// Decimal digits with an optional sign and surrounding white space; anything
// else (a decimal point included) fails with ValueError.
std::int64_t integer_of_text(std::string_view text);
// As integer_of_text, but a number beyond 64 bits becomes the nearest
// 64-bit value instead of failing: for settings whose range is open above.
std::int64_t saturating_integer_of_text(std::string_view text);

// An integer stays; a float is cut toward zero (NaN and infinities fail with
// ValueError); a boolean is 0 or 1; a string converts as integer_of_text.
// Anything else, null included, fails with TypeError.
std::int64_t integer_of(const Json& value);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_INTEGER_H_
