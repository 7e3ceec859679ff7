#include "sync/sync_manager.h"

namespace quillmarsh::sync {

// Interim: vocabularies are not fetched yet.
bool SyncManager::_download_vocabulary(Manifest& /*server_manifest*/) { return false; }

}  // namespace quillmarsh::sync
