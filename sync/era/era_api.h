// The answer of GET /era/current comes in a flat and a wrapped shape; this
// turns either into the flat one that every reader uses.
#ifndef QUILLMARSH_SYNC_ERA_ERA_API_H_
#define QUILLMARSH_SYNC_ERA_ERA_API_H_

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// The era object of `data`: a flat answer (or any non-object) as it came, a
// wrapped one's inner object with the outer "state" filled in where the
// inner one lacks it, or {era_id: null, state} when there is no era.
Json _normalize_era_current_response(const Json& data);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ERA_ERA_API_H_
