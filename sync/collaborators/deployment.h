// quillmarsh.deployment: the running library's version and its update path.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_DEPLOYMENT_H_
#define QUILLMARSH_SYNC_COLLABORATORS_DEPLOYMENT_H_

#include <memory>
#include <optional>
#include <string>

#include "sync/collaborators/slot.h"

namespace quillmarsh::sync {

// What auto_update answers. An attribute the module does not give stays
// absent, and the caller applies its own default.
struct UpdateResult {
  std::optional<bool> success;
  std::optional<std::string> warning;
};

class Deployment {
 public:
  virtual ~Deployment() = default;
  // The running library's version string.
  virtual std::string _CURRENT_VERSION() = 0;
  // The version of a newer locally available build, or absent. May fail with
  // ConnectionError.
  virtual std::optional<std::string> check_update(const std::string& current_version) = 0;
  // Below 0 when a < b, 0 when equal, above 0 when a > b; ValueError for a
  // malformed version.
  virtual int _compare_versions(const std::string& a, const std::string& b) = 0;
  // Installs a build of at least `min_ver`; LibraryUpdateRequired passes
  // through the component untouched.
  virtual UpdateResult auto_update(const std::string& min_ver) = 0;
};

// The library's default: reports this build's version, compares dotted
// numeric versions, and knows of no newer build.
class DefaultDeployment : public Deployment {
 public:
  std::string _CURRENT_VERSION() override;
  std::optional<std::string> check_update(const std::string& current_version) override;
  int _compare_versions(const std::string& a, const std::string& b) override;
  UpdateResult auto_update(const std::string& min_ver) override;
};

// The version this library was built as ("0.0.3").
const char* library_version();

// Compares two versions of dotted decimal numbers ("1.10.0" > "1.9"); a
// missing trailing part counts as 0. ValueError for anything else.
int compare_dotted_versions(const std::string& a, const std::string& b);

// Filled with DefaultDeployment until the host installs its own.
CollaboratorSlot<Deployment>& deployment_slot();

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_DEPLOYMENT_H_
