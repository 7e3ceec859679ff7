#include "sync/collaborators/transport_security.h"

#include <arpa/inet.h>

#include "sync/errors.h"
#include "sync/support/repr.h"
#include "sync/support/url.h"

namespace quillmarsh::sync {
namespace {

bool is_loopback_host(const std::string& host) {
  if (host == "localhost" || host == "::1") return true;
  in_addr address{};
  if (inet_pton(AF_INET, host.c_str(), &address) == 1) {
    return (ntohl(address.s_addr) >> 24) == 127;
  }
  return false;
}

}  // namespace

void DefaultTransportSecurity::validate_bearer_transport_url(const std::string& url) {
  const UrlParts parts = split_url(url);
  const std::optional<std::string> host = url_hostname(parts);
  if (parts.scheme == "https" && host) return;
  if (parts.scheme == "http" && host && is_loopback_host(*host)) return;
  throw ValueError("Refusing to send a bearer token over " + quoted(url) +
                   ": use https, or http only to a loopback host");
}

CollaboratorSlot<TransportSecurity>& transport_security_slot() {
  static auto* slot = new CollaboratorSlot<TransportSecurity>(
      "quillmarsh._transport_security", std::make_shared<DefaultTransportSecurity>());
  return *slot;
}

void validate_bearer_transport_url(const std::string& url) {
  transport_security_slot().require()->validate_bearer_transport_url(url);
}

}  // namespace quillmarsh::sync
