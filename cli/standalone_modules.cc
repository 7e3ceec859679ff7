#include "cli/standalone_modules.h"

#include <memory>

#include "sync/collaborators/agent_onboarding.h"
#include "sync/collaborators/auth.h"
#include "sync/collaborators/search_tracking.h"

namespace quillmarsh::sync::cli {
namespace {

class NothingToTrack : public SearchTracker {
 public:
  void handle_era_transition(std::int64_t, std::optional<std::int64_t>) override {}
  void close() override {}
};

class NoSearchTracking : public SearchTracking {
 public:
  std::shared_ptr<SearchTracker> open_tracker(const std::string&, std::optional<std::shared_ptr<Identity>>) override {
    return std::make_shared<NothingToTrack>();
  }
};

class NothingToNotify : public Auth {
 public:
  void notify_era_change(std::int64_t) override {}
};

class NoNudges : public AgentOnboarding {
 public:
  void update_nudge(const std::string&, std::int64_t, std::optional<std::int64_t>) override {}
};

}  // namespace

void install_standalone_modules() {
  agent_onboarding_slot().set(std::make_shared<NoNudges>());
  search_tracking_slot().set(std::make_shared<NoSearchTracking>());
  auth_slot().set(std::make_shared<NothingToNotify>());
}

}  // namespace quillmarsh::sync::cli
