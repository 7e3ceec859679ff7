// quillmarsh._transport_security: decides which URLs may carry a bearer token.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_TRANSPORT_SECURITY_H_
#define QUILLMARSH_SYNC_COLLABORATORS_TRANSPORT_SECURITY_H_

#include <memory>
#include <string>

#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

class TransportSecurity {
 public:
  virtual ~TransportSecurity() = default;
  // Returns when a bearer token may be sent to `url`; raises otherwise.
  virtual void validate_bearer_transport_url(const std::string& url) = 0;
};

// The library's default policy: https anywhere, plain http only to a loopback
// host (127.0.0.0/8, ::1, localhost); anything else fails with ValueError.
class DefaultTransportSecurity : public TransportSecurity {
 public:
  void validate_bearer_transport_url(const std::string& url) override;
};

// Filled with DefaultTransportSecurity until the host installs its own.
CollaboratorSlot<TransportSecurity>& transport_security_slot();

// Calls the module in the slot; ImportError when the slot is empty.
void validate_bearer_transport_url(const std::string& url);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_TRANSPORT_SECURITY_H_
