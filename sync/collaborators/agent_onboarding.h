// quillmarsh.agent_onboarding: hints shown to the host's agents, nudged when
// the era changes.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_AGENT_ONBOARDING_H_
#define QUILLMARSH_SYNC_COLLABORATORS_AGENT_ONBOARDING_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

class AgentOnboarding {
 public:
  virtual ~AgentOnboarding() = default;
  virtual void update_nudge(const std::string& event, std::int64_t new_era_id,
                            std::optional<std::int64_t> previous_era_id) = 0;
};

// Empty until the host installs its module.
inline CollaboratorSlot<AgentOnboarding>& agent_onboarding_slot() {
  static auto* slot = new CollaboratorSlot<AgentOnboarding>("quillmarsh.agent_onboarding", nullptr);
  return *slot;
}

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_AGENT_ONBOARDING_H_
