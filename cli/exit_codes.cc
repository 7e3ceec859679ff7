#include "cli/exit_codes.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <typeinfo>

#include "cli/options.h"
#include "sync/engine/curl_session.h"
#include "sync/errors.h"

namespace quillmarsh::sync::cli {
namespace {

template <class T>
bool is(const std::exception& e) {
  return dynamic_cast<const T*>(&e) != nullptr;
}

// The C++ name of a failure from outside the component.
std::string demangled_type_name(const std::exception& e) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status),
                                              std::free);
  return status == 0 && name ? name.get() : typeid(e).name();
}

}  // namespace

int exit_code_for(const std::exception& e) {
  // Children before their parents.
  if (is<UsageError>(e)) return kExitUsage;
  if (is<IntegrityError>(e)) return kExitIntegrity;
  if (is<EraError>(e)) return kExitEra;
  if (is<ManifestError>(e)) return kExitManifest;
  if (is<DiskSpaceError>(e)) return kExitDiskSpace;
  if (is<SyncError>(e)) return kExitSyncError;
  if (is<AuthError>(e)) return kExitAuth;
  if (is<ConnectionError>(e) || is<TimeoutError>(e) || is<URLError>(e)) return kExitConnection;
  if (is<StateError>(e)) return kExitState;
  if (is<LibraryUpdateRequired>(e)) return kExitUpdateRequired;
  return kExitOther;
}

std::string error_line(const std::exception& e) {
  const auto* ours = dynamic_cast<const Error*>(&e);
  std::string line = "error: " + (ours ? std::string(ours->type_name()) : demangled_type_name(e)) + ": " + e.what();
  // The contract is one last line; a message with line breaks would split it.
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return line;
}

}  // namespace quillmarsh::sync::cli
