// The commands that work on a data directory, each one call of the library.
#include <iostream>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "sync/support/repr.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync::cli {
namespace {

// verify reads only local files, so it does without a server; the manager
// still wants a URL, which it never uses for this.
constexpr const char* kUnusedServer = "https://127.0.0.1";

std::shared_ptr<SyncManager> open_manager(const GlobalOptions& g, const std::string& command, bool needs_server) {
  const std::string data_dir = required_data_dir(g, command);
  const std::string server = needs_server ? required_server(g, command) : g.server.value_or(kUnusedServer);
  auto token = token_source(g);
  try {
    return SyncManager::create(data_dir, server, std::move(token));
  } catch (const ValueError& e) {
    // An empty or refused server URL is bad input like any other.
    throw UsageError("cannot use --server " + quoted(server) + ": " + e.what());
  }
}

// The library passes over a path its manifest does not list; a person who
// typed one wants to hear of it, and of the listed path they probably meant.
void refuse_unknown_paths(const SyncManager& manager, const std::vector<std::string>& paths) {
  const std::shared_ptr<Manifest> manifest = manager.get_manifest();
  if (!manifest) {
    throw UsageError("nothing to repair: " + manager._data_dir +
                     " holds no manifest in force; run `qmsync sync` first");
  }
  const Json& files = manifest->files();
  const auto listed = [&files](const std::string& path) { return files.is_object() && files.contains(path); };
  std::string refused;
  for (const std::string& path : paths) {
    if (listed(path)) continue;
    std::string near = path;
    while (near.starts_with("./")) near.erase(0, 2);
    if (const std::string prefix = manager._data_dir + "/"; near.starts_with(prefix)) near.erase(0, prefix.size());
    refused += (refused.empty() ? "" : ", ") + sync::quoted(path);
    if (near != path && listed(near)) refused += " (did you mean " + sync::quoted(near) + "?)";
  }
  if (!refused.empty()) {
    throw UsageError("not in the manifest in force, so not repaired: " + refused +
                     "; give paths as `qmsync verify` names them");
  }
}

// What a Ctrl-C during a download leaves: files that completed are in place,
// verified, and the next run does not fetch them again; a file cut halfway is
// fetched anew.
std::string interrupted_notice(TerminalProgress& progress, const char* command) {
  return "Interrupted: " + std::to_string(progress.files_done()) +
         " file(s) of this batch had completed and are kept, verified; the next " + command +
         " fetches only what is still missing.";
}

int run_sync(const GlobalOptions& g) {
  TerminalProgress progress;
  const InterruptNotice interrupt([&progress] { return interrupted_notice(progress, "sync"); });
  auto manager = open_manager(g, "sync", true);
  manager->set_progress_observer(progress.observer());
  const SyncResult result = manager->sync();
  progress.finish();
  print_sync_result(result, "Sync", g.json);
  return kExitOk;
}

int run_verify(const GlobalOptions& g) {
  auto manager = open_manager(g, "verify", false);
  // The library finds nothing wrong where nothing was promised; a person
  // asking must not read that as "valid".
  if (!manager->get_manifest()) {
    if (g.json) {
      print_json(Json{{"valid", false}, {"manifest_in_force", false}});
    } else {
      std::cout << "Not verified: " << manager->_data_dir
                << " holds no manifest in force, so nothing was ever synced there. Run `qmsync sync` first.\n";
    }
    return kExitInvalid;
  }
  const VerifyResult result = manager->verify();
  print_verify_result(result, g.json);
  return result.valid ? kExitOk : kExitInvalid;
}

int run_repair(const GlobalOptions& g, const std::vector<std::string>& paths) {
  TerminalProgress progress;
  const InterruptNotice interrupt([&progress] { return interrupted_notice(progress, "repair"); });
  auto manager = open_manager(g, "repair", true);
  refuse_unknown_paths(*manager, paths);
  manager->set_progress_observer(progress.observer());
  const SyncResult result = manager->repair(paths);
  progress.finish();
  print_sync_result(result, "Repair", g.json);
  return kExitOk;
}

int run_needs_sync(const GlobalOptions& g) {
  auto manager = open_manager(g, "needs-sync", true);
  print_needs_sync(manager->needs_sync(), g.json);
  return kExitOk;
}

int run_status(const GlobalOptions& g) {
  auto manager = open_manager(g, "status", true);
  StatusReport report;
  if (const std::shared_ptr<Manifest> manifest = manager->get_manifest()) {
    report.era_id = manifest->era_id;
    report.version = manifest->version;
    if (manifest->files().is_object()) report.file_count = static_cast<std::int64_t>(manifest->files().size());
  }
  report.needs_sync = manager->needs_sync();
  report.status = manager->status();
  print_status(report, g.json);
  return kExitOk;
}

int run_transition(const GlobalOptions& g, std::int64_t era) {
  auto manager = open_manager(g, "transition", true);
  if (!g.json) std::cout << "Moving " << manager->_data_dir << " to era " << era << "..." << std::endl;
  // A person at a terminal has no searches to stop or restart.
  manager->trigger_era_transition(era);
  StatusReport report;
  if (const std::shared_ptr<Manifest> manifest = manager->get_manifest()) {
    report.era_id = manifest->era_id;
    report.version = manifest->version;
    if (manifest->files().is_object()) report.file_count = static_cast<std::int64_t>(manifest->files().size());
  }
  print_transition_result(report, g.json);
  return kExitOk;
}

int run_cleanup(const GlobalOptions& g, bool all) {
  auto manager = open_manager(g, "cleanup", false);
  print_cleanup_result(manager->cleanup_old_eras(!all), all, g.json);
  return kExitOk;
}

}  // namespace

void add_client_commands(CLI::App& app, const GlobalOptions& g, std::vector<Command>& commands) {
  commands.push_back({app.add_subcommand("sync", "one sync pass: bring the data directory up to the server's manifest"),
                      [&g] { return run_sync(g); }});
  commands.push_back(
      {app.add_subcommand("verify", "check every file of the manifest in force; exit 1 when any is missing or bad"),
       [&g] { return run_verify(g); }});

  auto paths = std::make_shared<std::vector<std::string>>();
  CLI::App* repair = app.add_subcommand("repair", "download the given manifest paths again");
  repair->add_option("PATH", *paths, "manifest paths, as verify names them")->required();
  commands.push_back({repair, [&g, paths] { return run_repair(g, *paths); }});

  commands.push_back({app.add_subcommand("needs-sync", "whether a sync pass would change anything"),
                      [&g] { return run_needs_sync(g); }});
  commands.push_back({app.add_subcommand("status", "the manifest in force, whether a sync is due, the status text"),
                      [&g] { return run_status(g); }});

  auto era = std::make_shared<std::int64_t>(0);
  CLI::App* transition = app.add_subcommand(
      "transition", "move the data directory to era ERA, which the server must have made the active one");
  transition->add_option("ERA", *era, "the era to move to")->required();
  commands.push_back({transition, [&g, era] { return run_transition(g, *era); }});

  auto all = std::make_shared<bool>(false);
  CLI::App* cleanup = app.add_subcommand("cleanup", "delete the directories of eras other than the current one");
  cleanup->add_flag("--all", *all, "also delete the current era's data (manifest, seed and data folders)");
  commands.push_back({cleanup, [&g, all] { return run_cleanup(g, *all); }});
}

}  // namespace quillmarsh::sync::cli
