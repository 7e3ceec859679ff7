// qmsync's global options, accepted before or after the command, and what
// they set up for the process.
#ifndef QUILLMARSH_SYNC_CLI_OPTIONS_H_
#define QUILLMARSH_SYNC_CLI_OPTIONS_H_

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>

#include "sync/errors.h"

namespace quillmarsh::sync::cli {

// Bad input on the command line: exit 2.
class UsageError : public Error {
 public:
  using Error::Error;
  const char* type_name() const noexcept override { return "UsageError"; }
};

struct GlobalOptions {
  std::optional<std::string> data_dir;
  std::optional<std::string> server;
  std::optional<std::string> token;
  std::optional<std::string> token_file;
  std::optional<std::string> ca_file;
  std::string log_level = "warning";
  bool json = false;
  bool quiet = false;
  bool verbose = false;
};

void add_global_options(CLI::App& app, GlobalOptions& options);

// Checks for numeric arguments that say what was expected; without them a
// mistyped number reads "Could not convert", which names no remedy.
const CLI::Validator& whole_number();
const CLI::Validator& seconds();

// Whether a token was given at all, by option or environment.
inline bool token_given(const GlobalOptions& options) { return options.token || options.token_file; }

// Applies --log-level and --ca-file to the process. UsageError when the CA
// file cannot be used.
void apply_process_options(const GlobalOptions& options);

// The bearer token, from --token or read afresh from --token-file at every
// call, so that a rotated token is picked up. The file is read once here
// first: UsageError when it cannot be read or is empty.
std::function<std::string()> token_source(const GlobalOptions& options);

// The data directory; UsageError when it is not given or is no directory.
std::string required_data_dir(const GlobalOptions& options, const std::string& command);
// The server URL; UsageError when it is not given, has no scheme, or would
// send the token in clear to another machine.
std::string required_server(const GlobalOptions& options, const std::string& command);

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_OPTIONS_H_
