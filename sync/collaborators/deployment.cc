#include "sync/collaborators/deployment.h"

#include <cstdint>
#include <vector>

#include "sync/errors.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync {
namespace {

std::vector<std::uint64_t> version_parts(const std::string& version) {
  std::vector<std::uint64_t> parts;
  std::size_t i = 0;
  while (true) {
    const std::size_t start = i;
    std::uint64_t value = 0;
    while (i < version.size() && version[i] >= '0' && version[i] <= '9') {
      if (i - start >= 18) throw ValueError("Invalid version: " + quoted(version));
      value = value * 10 + static_cast<std::uint64_t>(version[i] - '0');
      ++i;
    }
    if (i == start) throw ValueError("Invalid version: " + quoted(version));
    parts.push_back(value);
    if (i == version.size()) return parts;
    if (version[i] != '.') throw ValueError("Invalid version: " + quoted(version));
    ++i;
  }
}

}  // namespace

const char* library_version() { return QUILLMARSH_SYNC_VERSION; }

int compare_dotted_versions(const std::string& a, const std::string& b) {
  const std::vector<std::uint64_t> left = version_parts(a);
  const std::vector<std::uint64_t> right = version_parts(b);
  const std::size_t n = std::max(left.size(), right.size());
  for (std::size_t i = 0; i < n; ++i) {
    const std::uint64_t x = i < left.size() ? left[i] : 0;
    const std::uint64_t y = i < right.size() ? right[i] : 0;
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

std::string DefaultDeployment::_CURRENT_VERSION() { return library_version(); }

std::optional<std::string> DefaultDeployment::check_update(const std::string&) { return std::nullopt; }

int DefaultDeployment::_compare_versions(const std::string& a, const std::string& b) {
  return compare_dotted_versions(a, b);
}

UpdateResult DefaultDeployment::auto_update(const std::string&) {
  return UpdateResult{false, "This build cannot update itself; install a newer quillmarsh."};
}

CollaboratorSlot<Deployment>& deployment_slot() {
  static auto* slot = new CollaboratorSlot<Deployment>("quillmarsh.deployment", std::make_shared<DefaultDeployment>());
  return *slot;
}

}  // namespace quillmarsh::sync
