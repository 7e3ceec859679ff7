// quillmarsh.identity: who owns a data directory. The component only passes
// an identity along, so it is opaque here.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_IDENTITY_H_
#define QUILLMARSH_SYNC_COLLABORATORS_IDENTITY_H_

#include <memory>
#include <string>

#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

// An identity as the host's module made it; the host subclasses it.
class Identity {
 public:
  virtual ~Identity() = default;
};

class IdentityModule {
 public:
  virtual ~IdentityModule() = default;
  // The identity that owns `data_dir`; may be null.
  virtual std::shared_ptr<Identity> resolve_identity_for_data_dir(const std::string& data_dir) = 0;
};

// Empty until the host installs its module.
inline CollaboratorSlot<IdentityModule>& identity_slot() {
  static auto* slot = new CollaboratorSlot<IdentityModule>("quillmarsh.identity", nullptr);
  return *slot;
}

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_IDENTITY_H_
