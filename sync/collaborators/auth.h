// quillmarsh.auth: the host's credentials, told when the era changes.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_AUTH_H_
#define QUILLMARSH_SYNC_COLLABORATORS_AUTH_H_

#include <cstdint>
#include <memory>

#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

class Auth {
 public:
  virtual ~Auth() = default;
  virtual void notify_era_change(std::int64_t new_era_id) = 0;
};

// Empty until the host installs its module.
inline CollaboratorSlot<Auth>& auth_slot() {
  static auto* slot = new CollaboratorSlot<Auth>("quillmarsh.auth", nullptr);
  return *slot;
}

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_AUTH_H_
