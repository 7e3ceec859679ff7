#include "sync/sync_manager.h"

namespace quillmarsh::sync {

// Interim: corruption cannot be reported yet, so the repair queue that feeds
// this stays empty.
SyncResult SyncManager::repair(const std::vector<std::string>& /*files*/) { return SyncResult{}; }

}  // namespace quillmarsh::sync
