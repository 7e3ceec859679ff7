#include "sync/engine/result_fields.h"

#include "sync/artefacts/vocabulary.h"
#include "sync/support/integer.h"

namespace quillmarsh::sync {

std::int64_t integer_or_zero(const Json& value) {
  try {
    return integer_of(value);
  } catch (const std::exception&) {
    return 0;
  }
}

void fill_vocabulary_metadata(SyncResult& result, const Json& vocabularies) {
  if (vocabularies.empty()) return;
  const Json metadata = _first_vocabulary_metadata(vocabularies);
  auto member = [&](const char* key) {
    const auto it = metadata.find(key);
    return it == metadata.end() ? 0 : integer_or_zero(*it);
  };
  result.t_signal_is = member("t_signal_is");
  result.t_strategy_is = member("t_strategy_is");
  result.n_instruments = member("n_instruments");
}

}  // namespace quillmarsh::sync
