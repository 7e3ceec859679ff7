// qmsync's commands. Each registers itself on the application and returns
// what runs it once the command line has been parsed.
#ifndef QUILLMARSH_SYNC_CLI_COMMANDS_H_
#define QUILLMARSH_SYNC_CLI_COMMANDS_H_

#include <CLI/CLI.hpp>

#include <functional>
#include <vector>

#include "cli/options.h"

namespace quillmarsh::sync::cli {

struct Command {
  CLI::App* app;
  std::function<int()> run;  // the exit code; failures are thrown
};

// sync, verify, repair, needs-sync, status: one SyncManager on --data-dir.
void add_client_commands(CLI::App& app, const GlobalOptions& global, std::vector<Command>& commands);
// watch: a consumer of the shared manager until SIGINT or SIGTERM.
void add_watch_command(CLI::App& app, const GlobalOptions& global, std::vector<Command>& commands);
// publish and serve: the reference publisher and server.
void add_server_commands(CLI::App& app, const GlobalOptions& global, std::vector<Command>& commands);

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_COMMANDS_H_
