// qmsync: mirror a published era into a data directory, check it and
// repair it; publish and serve an era for trying that out.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/options.h"
#include "cli/output.h"
#include "sync/collaborators/deployment.h"
#include "cli/standalone_modules.h"

namespace {

using namespace quillmarsh::sync::cli;
using quillmarsh::sync::Json;
using quillmarsh::sync::library_version;

// The stderr line always; under --json also one object on stdout, so that a
// script reading stdout learns of the failure without parsing stderr.
int fail(const std::exception& e, const GlobalOptions& g) {
  const std::string next = next_step(e, token_given(g));
  const int code = exit_code_for(e);
  if (g.json) {
    Json error = Json::object();
    error["type"] = failure_type_name(e);
    error["message"] = e.what();
    error["exit_code"] = code;
    if (!next.empty()) error["next_step"] = next;
    print_json(Json{{"error", error}});
  }
  std::cout.flush();
  std::cerr << error_line(e, next) << std::endl;
  return code;
}

constexpr const char* kHelpFooter = R"(Examples:
  qmsync publish --source ./era-files --out ./root --era 1 --version 1
  qmsync serve --root ./root --token-file ./token        (prints its URL and CA file)
  export QMSYNC_SERVER=https://127.0.0.1:8443 QMSYNC_TOKEN_FILE=./token QMSYNC_CA_FILE=./root/tls/ca.pem
  qmsync sync --data-dir ./data --dry-run
  qmsync sync --data-dir ./data
  qmsync verify --data-dir ./data
  qmsync status --data-dir ./data --json

Environment: QMSYNC_SERVER, QMSYNC_TOKEN_FILE, QMSYNC_CA_FILE and QMSYNC_DATA_DIR stand in for
the options of the same names; an option given on the command line wins.

Exit codes:
    0  success
    1  verify found missing or corrupt files, or nothing was ever synced there
    2  bad command line: an unknown option, a missing --data-dir, a path not in the manifest
    3  another sync failure
    4  a download failed its digest
    5  the server is on another era: run qmsync transition ERA
    6  the server's manifest is unusable
    7  not enough disk space
    8  the server refused the token
    9  no connection: nothing listening, a timeout, an untrusted certificate
   10  local state in the way
   11  this qmsync is too old for the era
   12  anything else
  130  interrupted (Ctrl-C); what had completed is kept)";

std::string joined(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) out += (out.empty() ? "" : " ") + item;
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"qmsync: keeps a local data directory identical to the era a server publishes"};
  app.name("qmsync");
  app.fallthrough();
  app.set_version_flag("--version", std::string("qmsync ") + library_version());
  app.footer(kHelpFooter);
  GlobalOptions global;
  add_global_options(app, global);
  std::vector<Command> commands;
  add_client_commands(app, global, commands);
  add_watch_command(app, global, commands);
  add_server_commands(app, global, commands);
  for (const Command& command : commands) {
    command.app->footer("Global options go before or after the command: see qmsync --help.");
  }
  // Set after the commands exist, so that only the top level collects
  // leftovers, which are reported below in words of our own.
  app.allow_extras();

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // The parse may stop before --json is taken in; it was asked for all the same.
    for (int i = 1; i < argc; ++i) global.json = global.json || std::string_view(argv[i]) == "--json";
    return fail(UsageError(e.what()), global);
  }

  const std::vector<std::string> extras = app.remaining();
  const Command* chosen = nullptr;
  for (const Command& command : commands) {
    if (command.app->parsed()) chosen = &command;
  }
  if (!chosen) {
    if (!extras.empty() && extras.front().front() != '-') {
      return fail(UsageError("unknown command '" + extras.front() +
                             "'; the commands are sync, verify, repair, needs-sync, status, transition, cleanup, watch, publish, serve"),
                  global);
    }
    return fail(UsageError(extras.empty() ? "no command given; see qmsync --help"
                                          : "unexpected arguments: " + joined(extras)),
                global);
  }
  if (!extras.empty()) return fail(UsageError("unexpected arguments: " + joined(extras)), global);

  try {
    apply_process_options(global);
    install_standalone_modules();
    return chosen->run();
  } catch (const std::exception& e) {
    return fail(e, global);
  }
}
