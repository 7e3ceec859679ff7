// qmsync: mirror a published era into a data directory, check it and
// repair it; publish and serve an era for trying that out.
#include <CLI/CLI.hpp>

#include <iostream>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/options.h"
#include "cli/standalone_modules.h"

namespace {

using namespace quillmarsh::sync::cli;

int fail(const std::exception& e) {
  std::cout.flush();
  std::cerr << error_line(e) << std::endl;
  return exit_code_for(e);
}

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
  } catch (const CLI::ParseError& e) {
    return fail(UsageError(e.what()));
  }

  const std::vector<std::string> extras = app.remaining();
  const Command* chosen = nullptr;
  for (const Command& command : commands) {
    if (command.app->parsed()) chosen = &command;
  }
  if (!chosen) {
    if (!extras.empty() && extras.front().front() != '-') {
      return fail(UsageError("unknown command '" + extras.front() +
                             "'; the commands are sync, verify, repair, needs-sync, status, transition, cleanup, watch, publish, serve"));
    }
    return fail(UsageError(extras.empty() ? "no command given; see qmsync --help"
                                          : "unexpected arguments: " + joined(extras)));
  }
  if (!extras.empty()) return fail(UsageError("unexpected arguments: " + joined(extras)));

  try {
    apply_process_options(global);
    install_standalone_modules();
    return chosen->run();
  } catch (const std::exception& e) {
    return fail(e);
  }
}
