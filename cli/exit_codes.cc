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

std::string failure_type_name(const std::exception& e) {
  const auto* ours = dynamic_cast<const Error*>(&e);
  return ours ? std::string(ours->type_name()) : demangled_type_name(e);
}

std::string next_step(const std::exception& e, bool token_given) {
  const std::string_view text = e.what();
  const auto says = [&text](std::string_view part) { return text.find(part) != std::string_view::npos; };
  if (is<AuthError>(e)) {
    return token_given ? "the server refused the token: check --token or --token-file"
                       : "no token was given: pass --token TEXT or --token-file PATH (or set QMSYNC_TOKEN_FILE)";
  }
  if (is<ConnectionError>(e) || is<URLError>(e)) {
    if (says("certificate") || says("issuer")) {
      return "the server's certificate is not trusted here: pass --ca-file PATH, the CA that signed it "
             "(qmsync serve prints the one it made)";
    }
    if (says("refused") || says("Couldn't connect") || says("Could not connect") || says("resolve")) {
      return "nothing answers at --server: check the URL and that the server is running";
    }
  }
  if (is<EraError>(e)) {
    // "... server era_id=N" from the sync pass that met a newer era.
    constexpr std::string_view server_era = "server era_id=";
    if (const std::size_t at = text.rfind(server_era); at != std::string_view::npos) {
      const std::string era(text.substr(at + server_era.size()));
      return "the server has moved to era " + era + ": run `qmsync transition " + era + "`";
    }
  }
  return "";
}

std::string error_line(const std::exception& e, const std::string& next) {
  std::string line = "error: " + failure_type_name(e) + ": " + e.what();
  if (!next.empty()) line += " -- " + next;
  // The contract is one last line; a message with line breaks would split it.
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return line;
}

}  // namespace quillmarsh::sync::cli
