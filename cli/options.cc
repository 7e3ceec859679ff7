#include "cli/options.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <utility>

#include "sync/collaborators/transport_security.h"
#include "sync/engine/curl_session.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/support/url.h"

namespace quillmarsh::sync::cli {
namespace {

// "A: B" where the failure B opens with A's own first words, as when a pass
// falls back and quotes the check that made it: B alone says it all.
std::string without_repeated_opening(const std::string& message) {
  const std::size_t colon = message.find(": ");
  if (colon == std::string::npos) return message;
  const std::string_view head(message.data(), colon);
  const std::string_view tail = std::string_view(message).substr(colon + 2);
  int shared_words = 0;
  for (std::size_t i = 0; i < head.size() && i < tail.size() && head[i] == tail[i]; ++i) {
    shared_words += head[i] == ' ';
  }
  return shared_words >= 3 ? std::string(tail) : message;
}

// The component's records on stderr, as its own default writes them, but
// each text once: a warning repeated by a fallback and again by the stage
// it falls back to says nothing new the second time.
LogSink stderr_sink_once(LogLevel shown) {
  auto seen = std::make_shared<std::pair<std::mutex, std::set<std::string>>>();
  return [shown, seen](const LogRecord& record) {
    if (record.level < shown) return;
    std::string line = std::string(log_level_name(record.level)) + " " + kLoggerName + ": " +
                       without_repeated_opening(record.message) + "\n";
    if (!record.failure.empty()) line += record.failure + "\n";
    std::lock_guard<std::mutex> lock(seen->first);
    if (!seen->second.insert(line).second) return;
    std::fwrite(line.data(), 1, line.size(), stderr);
  };
}

std::string read_token_file(const std::string& path) {
  return std::string(strip(read_file(expand_user(path))));
}

}  // namespace

const CLI::Validator& whole_number() {
  static const CLI::Validator check(
      [](std::string& text) -> std::string {
        std::int64_t value = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
        if (error == std::errc() && end == text.data() + text.size()) return {};
        return "takes a whole number such as 3, not '" + text + "'";
      },
      "");
  return check;
}

const CLI::Validator& seconds() {
  static const CLI::Validator check(
      [](std::string& text) -> std::string {
        char* end = nullptr;
        std::strtod(text.c_str(), &end);
        if (!text.empty() && *end == '\0') return {};
        return "takes a number of seconds such as 60 or 0.5, not '" + text + "'";
      },
      "");
  return check;
}

void add_global_options(CLI::App& app, GlobalOptions& options) {
  // An option on the command line wins over its variable in the environment.
  app.add_option("--data-dir", options.data_dir, "the local data directory to mirror into")
      ->option_text("DIR")
      ->envname("QMSYNC_DATA_DIR");
  app.add_option("--server", options.server, "the API server's URL, https://HOST:PORT")
      ->option_text("URL")
      ->envname("QMSYNC_SERVER");
  auto* token = app.add_option("--token", options.token, "the bearer token")->option_text("TEXT");
  auto* token_file =
      app.add_option("--token-file", options.token_file, "a file holding the bearer token, read for every request")
          ->option_text("PATH")
          ->envname("QMSYNC_TOKEN_FILE");
  token->excludes(token_file);
  app.add_option("--ca-file", options.ca_file,
                 "PEM bundle of extra CA certificates to trust for the API server and the object store")
      ->option_text("PATH")
      ->envname("QMSYNC_CA_FILE");
  app.add_option("--log-level", options.log_level, "log lines on stderr from this level (default warning)")
      ->check(CLI::IsMember({"debug", "info", "warning"}))
      ->option_text("debug|info|warning");
  app.add_flag("--json", options.json, "one JSON object on stdout instead of text, failures included");
  auto* quiet = app.add_flag("-q,--quiet", options.quiet, "print nothing but failures and asked-for answers");
  app.add_flag("-v,--verbose", options.verbose, "name each file as it completes, and every counter")->excludes(quiet);
}

void apply_process_options(const GlobalOptions& options) {
  const LogLevel shown = options.log_level == "debug"  ? LogLevel::debug
                         : options.log_level == "info" ? LogLevel::info
                                                       : LogLevel::warning;
  set_stderr_log_level(shown);
  set_log_sink(stderr_sink_once(shown));
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
    // Not made here: a mistyped path would quietly become a second mirror.
    if (path_exists(dir)) throw UsageError("data directory " + quoted(*options.data_dir) + " is not a directory");
    throw UsageError("data directory " + quoted(*options.data_dir) + " does not exist; create it first (mkdir -p " +
                     quoted(*options.data_dir) + ") or check --data-dir");
  }
  return dir;
}

std::string required_server(const GlobalOptions& options, const std::string& command) {
  if (!options.server || options.server->empty()) {
    throw UsageError("'" + command + "' needs --server URL, the API server (or QMSYNC_SERVER)");
  }
  const std::string& url = *options.server;
  if (url.find("://") == std::string::npos) {
    throw UsageError("--server " + quoted(url) + " has no scheme: use https://" + url);
  }
  // The same rule as the library's, told before any request with what to
  // type instead.
  try {
    validate_bearer_transport_url(url);
  } catch (const ValueError&) {
    const UrlParts parts = split_url(url);
    if (parts.scheme == "http") {
      throw UsageError("--server " + quoted(url) +
                       " would send the token unencrypted to another machine: use https://" + parts.netloc +
                       parts.path);
    }
    throw UsageError("--server " + quoted(url) + " is no https:// URL: use https://HOST:PORT");
  }
  return url;
}

}  // namespace quillmarsh::sync::cli
