// A process-wide slot through which the component reaches one of the host
// library's sibling modules. The host (or a test) fills it; an empty slot
// behaves as a module that cannot be imported.
#ifndef QUILLMARSH_SYNC_COLLABORATORS_SLOT_H_
#define QUILLMARSH_SYNC_COLLABORATORS_SLOT_H_

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "sync/errors.h"

namespace quillmarsh::sync {

template <typename Module>
class CollaboratorSlot {
 public:
  CollaboratorSlot(const char* module_name, std::shared_ptr<Module> initial)
      : module_name_(module_name), module_(std::move(initial)) {}

  // Installs `module` (nullptr empties the slot) and returns the previous one.
  std::shared_ptr<Module> set(std::shared_ptr<Module> module) {
    std::lock_guard<std::mutex> lock(mu_);
    std::swap(module_, module);
    return module;
  }
  // The module in the slot, or nullptr.
  std::shared_ptr<Module> get() const {
    std::lock_guard<std::mutex> lock(mu_);
    return module_;
  }
  // The module in the slot, loaded: what importing it means. ImportError
  // when the slot is empty, or whatever the loader fails with.
  std::shared_ptr<Module> require() const {
    auto module = get();
    if (!module) throw ImportError("No module named " + std::string("'") + module_name_ + "'");
    std::function<void()> loader;
    {
      std::lock_guard<std::mutex> lock(mu_);
      loader = loader_;
    }
    if (loader) loader();
    return module;
  }
  // For a host whose modules load on demand (the Python binding): `loader`
  // runs at each require() and fails as the import would.
  void set_loader(std::function<void()> loader) {
    std::lock_guard<std::mutex> lock(mu_);
    loader_ = std::move(loader);
  }
  const char* module_name() const { return module_name_; }

 private:
  const char* module_name_;
  mutable std::mutex mu_;
  std::shared_ptr<Module> module_;
  std::function<void()> loader_;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_COLLABORATORS_SLOT_H_
