// Sets or unsets environment variables for one test and restores them after.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_SCOPED_ENV_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_SCOPED_ENV_H_

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace quillmarsh::sync::testing {

class ScopedEnv {
 public:
  ScopedEnv() = default;
  ~ScopedEnv() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) apply(it->first, it->second);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

  ScopedEnv& set(const std::string& name, const std::optional<std::string>& value) {
    const char* old = std::getenv(name.c_str());
    saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    apply(name, value);
    return *this;
  }
  ScopedEnv& unset(const std::string& name) { return set(name, std::nullopt); }

 private:
  static void apply(const std::string& name, const std::optional<std::string>& value) {
    if (value) ::setenv(name.c_str(), value->c_str(), 1);
    else ::unsetenv(name.c_str());
  }
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_SCOPED_ENV_H_
