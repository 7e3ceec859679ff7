// publish and serve: the reference publisher and server behind the demo and
// the command line's tests.
#include <signal.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/output.h"
#include "server/publisher.h"
#include "server/reference_server.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync::cli {
namespace {

struct PublishArgs {
  std::string source;
  std::string out;
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::optional<std::string> base_url;
  bool activate = false;
};

int run_publish(const GlobalOptions& g, const PublishArgs& a) {
  server::PublishRequest request{a.source, a.out, a.era, a.version, a.base_url, a.activate};
  const server::PublishReport report = [&] {
    try {
      return server::publish_era(request);
    } catch (const ValueError& e) {
      // A source the client could not mirror is bad input.
      throw UsageError(e.what());
    }
  }();
  if (report.previous_version && *report.previous_version == a.version) {
    std::cerr << "warning: era " << a.era << " version " << a.version
              << " was published before; clients that hold it do not fetch it again, so changes reach "
                 "no one who synced it: publish with a higher --version\n";
  } else if (report.previous_version && *report.previous_version > a.version) {
    std::cerr << "warning: era " << a.era << " goes back from version " << *report.previous_version << " to "
              << a.version << "; publish with a --version above " << *report.previous_version << "\n";
  }
  for (const std::string& path : report.changed_within_era) {
    std::cerr << "warning: " << path << " changed within era " << a.era
              << "; clients that hold it keep their copy until the era ends\n";
  }
  if (g.json) {
    Json j = Json::object();
    j["era_dir"] = report.era_dir;
    j["era_id"] = a.era;
    j["version"] = a.version;
    j["previous_version"] = report.previous_version ? Json(*report.previous_version) : Json();
    j["file_count"] = report.file_count;
    j["total_bytes"] = report.total_bytes;
    j["universes"] = report.universes;
    j["changed_within_era"] = report.changed_within_era;
    j["seed_created"] = report.seed_created;
    j["activated"] = report.activated;
    print_json(j);
    return kExitOk;
  }
  std::cout << "Published era " << a.era << " version " << a.version << " into " << report.era_dir << ": "
            << report.file_count << " files, " << report.total_bytes << " bytes, vocabularies of "
            << report.universes.size() << " universe(s) (";
  for (std::size_t i = 0; i < report.universes.size(); ++i) std::cout << (i ? ", " : "") << report.universes[i];
  std::cout << ") checked, " << (report.seed_created ? "a new" : "the era's existing") << " shuffle seed.\n";
  if (report.activated) std::cout << "Era " << a.era << " is now the one served.\n";
  return kExitOk;
}

// `word` as one shell word: as it is when nothing in it is special to a
// shell, else in single quotes.
std::string shell_word(const std::string& word) {
  const bool plain = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
    return std::isalnum(c) || std::strchr("@%+=:,./_-", c) != nullptr;
  });
  if (plain) return word;
  std::string quoted_word = "'";
  for (const char c : word) quoted_word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted_word + "'";
}

// The token options a client needs: the same file, by its full path so that
// the line works from any directory, or the same token.
std::string token_words(const GlobalOptions& g) {
  if (g.token_file) return "--token-file " + shell_word(resolve_path(expand_user(*g.token_file)));
  return "--token " + shell_word(g.token.value_or(""));
}

struct ServeArgs {
  std::string root;
  int api_port = 0;
  int files_port = 0;
  std::int64_t rate_limit_kib = 0;
  std::vector<std::string> faults;  // PATH:FAULTS
};

// --fault PATH:FAULTS as the object store takes it.
std::vector<std::pair<std::string, server::Fault>> parse_faults(const std::vector<std::string>& texts) {
  std::vector<std::pair<std::string, server::Fault>> faults;
  for (const std::string& text : texts) {
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || text[0] != '/') {
      throw UsageError("--fault " + quoted(text) + " needs PATH:FAULTS, such as /era_1/data/a.bin:cut=1000,times=1");
    }
    try {
      faults.emplace_back(text.substr(0, colon), server::parse_fault(std::string_view(text).substr(colon + 1)));
    } catch (const ValueError& e) {
      throw UsageError("--fault " + quoted(text) + ": " + e.what());
    }
  }
  return faults;
}

int run_serve(const GlobalOptions& g, const ServeArgs& a) {
  if (!g.token && !g.token_file) {
    throw UsageError("'serve' needs --token or --token-file: the token that clients must present");
  }
  // The signals are taken by sigwait below, on this thread; the servers'
  // threads inherit the mask. A client that hangs up must not kill us.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  std::unique_ptr<server::ReferenceServer> server;
  try {
    // Bad faults are refused before anything binds.
    server = std::make_unique<server::ReferenceServer>(
        server::ServeRequest{a.root, a.api_port, a.files_port, token_source(g), a.rate_limit_kib * 1024,
                             parse_faults(a.faults)});
  } catch (const ValueError& e) {
    throw UsageError(e.what());  // a root publish did not write
  } catch (const OSError& e) {
    if (e.error_number() != EADDRINUSE) throw;
    throw UsageError(std::string(e.what()) +
                     "; choose a free --api-port and --files-port, or leave them out for any free ones");
  }
  const std::string sync_command = "mkdir -p qmsync-data && qmsync sync --data-dir qmsync-data --server " +
                                   server->api_url() + " --ca-file " + shell_word(server->tls().ca_file) + " " +
                                   token_words(g);
  if (g.json) {
    Json j = Json::object();
    j["api_url"] = server->api_url();
    j["files_url"] = server->files_url();
    j["ca_file"] = server->tls().ca_file;
    j["root"] = server->root().root;
    j["sync_command"] = sync_command;
    print_json(j);
  } else {
    if (server->tls().created) std::cout << "qmsync serve: made a CA and a server certificate under " << server->root().tls_dir() << "\n";
    std::cout << "qmsync serve: API server    " << server->api_url() << "\n"
              << "qmsync serve: object store  " << server->files_url() << "\n"
              << "qmsync serve: CA file       " << server->tls().ca_file << "\n"
              << "qmsync serve: serving " << server->root().root << " until SIGINT or SIGTERM\n"
              << "qmsync serve: to mirror it, from another terminal:\n  " << sync_command << std::endl;
  }
  int signal_number = 0;
  sigwait(&stop_signals, &signal_number);
  server.reset();
  if (!g.json) std::cout << "qmsync serve: stopped" << std::endl;
  return kExitOk;
}

}  // namespace

void add_server_commands(CLI::App& app, const GlobalOptions& g, std::vector<Command>& commands) {
  auto publish_args = std::make_shared<PublishArgs>();
  CLI::App* publish = app.add_subcommand("publish", "build a published era from a source tree");
  publish->add_option("--source", publish_args->source, "the tree of files to publish")->required()->option_text("DIR");
  publish->add_option("--out", publish_args->out, "the server root to publish into")->required()->option_text("DIR");
  publish->add_option("--era", publish_args->era, "the era's number")
      ->required()
      ->check(whole_number())
      ->option_text("N");
  publish->add_option("--version", publish_args->version,
                      "the manifest's version: a whole number, higher with each publish of the era")
      ->required()
      ->check(whole_number())
      ->option_text("V");
  publish->add_option("--base-url", publish_args->base_url,
                      "the object store's base URL for the manifest (default: the reference server's own)")
      ->option_text("URL");
  publish->add_flag("--activate", publish_args->activate,
                    "make this era the one served (the first era published always is)");
  commands.push_back({publish, [&g, publish_args] { return run_publish(g, *publish_args); }});

  auto serve_args = std::make_shared<ServeArgs>();
  CLI::App* serve = app.add_subcommand("serve", "run the reference API server and object store on loopback");
  serve->add_option("--root", serve_args->root, "the server root that publish wrote")->required()->option_text("DIR");
  serve->add_option("--api-port", serve_args->api_port, "the API server's port (default: any free one)")
      ->check(CLI::Range(0, 65535))
      ->option_text("P");
  serve->add_option("--files-port", serve_args->files_port, "the object store's port (default: any free one)")
      ->check(CLI::Range(0, 65535))
      ->option_text("Q");
  serve->add_option("--rate-limit", serve_args->rate_limit_kib,
                    "send each object at most this many KiB/s, to try a slow link (default: no limit)")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1} << 40))
      ->option_text("KIB");
  serve
      ->add_option("--fault", serve_args->faults,
                   "misbehave on requests for PATH on the API or the object store (a trailing * covers a prefix), to "
                   "try a client against a faulty server; FAULTS is a comma-separated list of: status=N, body=TEXT (the rest), "
                   "cut=BYTES (drop the connection after them), wrong-bytes, delay=SECONDS (before the head), "
                   "stall=BYTES@SECONDS, ignore-range (200 for a ranged request), half-range, empty-206, "
                   "redirect=URL (the rest), times=N (then serve normally), skip=N (serve N first); repeatable. "
                   "Example: --fault '/era_1/*:cut=1000,times=2'")
      ->option_text("PATH:FAULTS");
  commands.push_back({serve, [&g, serve_args] { return run_serve(g, *serve_args); }});
}

}  // namespace quillmarsh::sync::cli
