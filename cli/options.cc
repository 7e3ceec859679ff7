#include "cli/options.h"

#include "sync/engine/curl_session.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"

namespace quillmarsh::sync::cli {
namespace {

std::string read_token_file(const std::string& path) {
  return std::string(strip(read_file(expand_user(path))));
}

}  // namespace

void add_global_options(CLI::App& app, GlobalOptions& options) {
  app.add_option("--data-dir", options.data_dir, "the local data directory to mirror into")->option_text("DIR");
  app.add_option("--server", options.server, "the API server's URL")->option_text("URL");
  auto* token = app.add_option("--token", options.token, "the bearer token")->option_text("TEXT");
  auto* token_file =
      app.add_option("--token-file", options.token_file, "a file holding the bearer token, read for every request")
          ->option_text("PATH");
  token->excludes(token_file);
  app.add_option("--ca-file", options.ca_file,
                 "PEM bundle of extra CA certificates to trust for the API server and the object store")
      ->option_text("PATH");
  app.add_option("--log-level", options.log_level, "log lines on stderr from this level (default warning)")
      ->check(CLI::IsMember({"debug", "info", "warning"}))
      ->option_text("debug|info|warning");
  app.add_flag("--json", options.json, "one JSON object on stdout instead of text");
}

void apply_process_options(const GlobalOptions& options) {
  set_stderr_log_level(options.log_level == "debug"  ? LogLevel::debug
                       : options.log_level == "info" ? LogLevel::info
                                                     : LogLevel::warning);
  if (options.ca_file) {
    try {
      set_extra_ca_file(expand_user(*options.ca_file));
    } catch (const Error& e) {
      throw UsageError("cannot use CA file " + quoted(*options.ca_file) + ": " + e.what());
    }
  }
}

std::function<std::string()> token_source(const GlobalOptions& options) {
  if (options.token_file) {
    const std::string path = *options.token_file;
    std::string first;
    try {
      first = read_token_file(path);
    } catch (const Error& e) {
      throw UsageError("cannot read token file " + quoted(path) + ": " + e.what());
    }
    if (first.empty()) throw UsageError("token file " + quoted(path) + " is empty");
    return [path] { return read_token_file(path); };
  }
  return [token = options.token.value_or("")] { return token; };
}

std::string required_data_dir(const GlobalOptions& options, const std::string& command) {
  if (!options.data_dir || options.data_dir->empty()) {
    throw UsageError("'" + command + "' needs --data-dir DIR, the local data directory");
  }
  const std::string dir = expand_user(*options.data_dir);
  if (!is_directory(dir)) {
    throw UsageError("data directory " + quoted(*options.data_dir) + " does not exist or is not a directory");
  }
  return dir;
}

std::string required_server(const GlobalOptions& options, const std::string& command) {
  if (!options.server || options.server->empty()) {
    throw UsageError("'" + command + "' needs --server URL, the API server");
  }
  return *options.server;
}

}  // namespace quillmarsh::sync::cli
