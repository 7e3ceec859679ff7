// The plain records that operations return.
#ifndef QUILLMARSH_SYNC_RECORDS_H_
#define QUILLMARSH_SYNC_RECORDS_H_

#include <cstdint>
#include <string>
#include <vector>

namespace quillmarsh::sync {

// "Result of a sync operation." Filled in place while a pass runs.
struct SyncResult {
  std::int64_t features_downloaded = 0;
  std::int64_t useful_signals_downloaded = 0;
  std::int64_t bytes_downloaded = 0;
  std::int64_t era_id = 0;
  std::int64_t t_signal_is = 0;
  std::int64_t t_strategy_is = 0;
  std::int64_t n_instruments = 0;
  std::int64_t n_features = 0;
  std::int64_t n_useful_signals = 0;
  std::int64_t n_found_strategies = 0;
  std::int64_t pnl_column_count = 0;
  bool vocabulary_downloaded = false;
  bool shuffle_seed_downloaded = false;

  bool operator==(const SyncResult&) const = default;
};

// "Result of a verify operation." Each record owns its lists.
struct VerifyResult {
  bool valid = true;
  std::vector<std::string> corrupted_files;
  std::vector<std::string> missing_files;

  bool operator==(const VerifyResult&) const = default;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_RECORDS_H_
