// quillmarsh.search_tracking: the host's record of searches, told when the
// data directory moves to another era.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_SEARCH_TRACKING_H_
#define QUILLMARSH_SYNC_COLLABORATORS_SEARCH_TRACKING_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sync/collaborators/identity.h"
#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

class SearchTracker {
 public:
  virtual ~SearchTracker() = default;
  virtual void handle_era_transition(std::int64_t new_era_id, std::optional<std::int64_t> previous_era_id) = 0;
  virtual void close() = 0;
};

class SearchTracking {
 public:
  virtual ~SearchTracking() = default;
  // Opens a tracker on `data_dir`. `identity` absent means the keyword is
  // not passed at all; a null identity is passed as such.
  virtual std::shared_ptr<SearchTracker> open_tracker(const std::string& data_dir,
                                                      std::optional<std::shared_ptr<Identity>> identity) = 0;
};

// Empty until the host installs its module.
inline CollaboratorSlot<SearchTracking>& search_tracking_slot() {
  static auto* slot = new CollaboratorSlot<SearchTracking>("quillmarsh.search_tracking", nullptr);
  return *slot;
}

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_SEARCH_TRACKING_H_
