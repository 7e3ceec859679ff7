// Filling SyncResult fields from JSON values, shared by the stages of a pass.
#ifndef QUILLMARSH_SYNC_ENGINE_RESULT_FIELDS_H_
#define QUILLMARSH_SYNC_ENGINE_RESULT_FIELDS_H_

#include "sync/records.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// The integer of `value`, or 0 when it has none: a record field copied from
// a server's JSON takes what converts.
std::int64_t integer_or_zero(const Json& value);

// t_signal_is, t_strategy_is and n_instruments from the first vocabulary's
// metadata; nothing when there are no vocabularies.
void fill_vocabulary_metadata(SyncResult& result, const Json& vocabularies);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_ENGINE_RESULT_FIELDS_H_
