// A fresh directory for one test, removed with everything in it afterwards.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_TEMP_DIR_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_TEMP_DIR_H_

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace quillmarsh::sync::testing {

class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/qmsync-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_TEMP_DIR_H_
