// Era ids as the server and a manifest hold them: any JSON value, null when
// absent. The monitor and the transition compare them as they came, so a
// value that is not an integer never stops a comparison that needs no
// number; only the places that need one convert it.
#ifndef QUILLMARSH_SYNC_ERA_ERA_ID_H_
#define QUILLMARSH_SYNC_ERA_ERA_ID_H_

#include <cstdint>
#include <optional>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// Equality of the values themselves: numbers by value (a boolean counts as
// 0 or 1), everything else by kind and content. Never fails.
bool era_ids_equal(const Json& a, const Json& b);

// `a > b`: numbers by value, strings by their characters. Any other pair
// cannot be ordered and fails with TypeError, naming both kinds.
bool era_id_greater(const Json& a, const Json& b);

// The integer of `era_id` where it has one, else nothing.
std::optional<std::int64_t> era_integer(const Json& era_id);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ERA_ERA_ID_H_
