// The commands that work on a data directory: each is one call of the
// library, with what a person at a terminal needs around it (the server's
// answer checked, what would change, files named as they arrive).
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <iostream>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/event.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
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

OutputStyle output_style(const GlobalOptions& g) { return {g.json, g.quiet, g.verbose}; }

// A small JSON document from the API server, with the failures the sync pass
// would raise for it.
Json fetch_document(SyncManager& m, const std::string& path) {
  const std::string url = m._server_url + path;
  log_info("GET %s", {url});
  const HttpResponse response = m._http_get(url);
  log_info("GET %s: HTTP %d, %d bytes", {url, response.status, static_cast<std::int64_t>(response.body.size())});
  if (response.status == 401) throw AuthError("Authentication failed: HTTP 401");
  if (response.status != 200) throw SyncError("Failed to fetch " + path + ": HTTP " + std::to_string(response.status));
  check_utf8(response.body);
  try {
    Json data = parse_json_text(response.body);
    if (!data.is_object()) throw ValueError("not a JSON object");
    return data;
  } catch (const ValueError& e) {
    throw ManifestError("Invalid " + path + " document: " + e.what(), std::current_exception());
  }
}

// The library's needs_sync answers "due" whenever it cannot ask the server,
// which suits a poll loop that asks again; a person who asked must hear why
// instead. So the version document is fetched here first, and a failure to
// get it ends the command as it would end `sync`.
Json probe_server_version(SyncManager& m) { return fetch_document(m, "/data/manifest/version"); }

// The era the server has moved to, when it is not the one in force here:
// only `qmsync transition` crosses eras.
std::optional<std::int64_t> era_ahead(const SyncManager& m, const Json& version_document) {
  const std::shared_ptr<Manifest> local = m.get_manifest();
  const auto era = version_document.find("era_id");
  if (!local || era == version_document.end() || era->is_null()) return std::nullopt;
  try {
    const std::int64_t server_era = integer_of(*era);
    if (server_era != integer_of(local->era_id)) return server_era;
  } catch (const std::exception& e) {
    log_debug("Era ids not comparable: %s", {e});
  }
  return std::nullopt;
}

std::string transition_advice(const SyncManager& m, std::int64_t era) {
  return "The server is on era " + std::to_string(era) + " and this directory on era " +
         text_of_json(m.get_manifest()->era_id) + ": run `qmsync transition " + std::to_string(era) + "`.";
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
    if (near.starts_with("/")) {
      // An absolute path into the data directory, however it was spelt.
      if (const std::string prefix = resolve_path(manager._data_dir) + "/"; resolve_path(near).starts_with(prefix)) {
        near = resolve_path(near).substr(prefix.size());
      }
    }
    refused += (refused.empty() ? "" : ", ") + sync::quoted(path);
    if (near != path && listed(near)) refused += " (did you mean " + sync::quoted(near) + "?)";
  }
  if (!refused.empty()) {
    throw UsageError("not in the manifest in force, so not repaired: " + refused +
                     "; give paths as `qmsync verify` names them");
  }
}

// The library waits for another process's file lock without a word, which
// at a terminal looks like a hang; so the lock is waited for here first,
// saying why after a second. The library takes it properly afterwards.
void wait_for_other_process(const SyncManager& m) {
  const std::string path = join_path(m._data_dir, ".sync_flock");
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;  // no lock file: nobody holds it
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    log_info("%s is held by another process; waiting", {path});
    Event taken;
    std::thread teller;
    if (::isatty(STDERR_FILENO) == 1) {
      teller = std::thread([&taken] {
        if (!taken.wait(1.0)) std::cerr << "Waiting for another process syncing this directory..." << std::endl;
      });
    }
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
    taken.set();
    if (teller.joinable()) teller.join();
  }
  ::close(fd);
}

// What a Ctrl-C during a download leaves: files that completed are in place,
// verified, and the next run does not fetch them again; a file cut halfway is
// fetched anew.
std::string interrupted_notice(TerminalProgress& progress, const char* command) {
  return "Interrupted: " + std::to_string(progress.files_done()) +
         " file(s) of this batch had completed and are kept, verified; the next " + command +
         " fetches only what is still missing.";
}

// What a sync pass would fetch, found as the pass finds it, with nothing
// written: the manifest is fetched and compared with the disk. The digests
// computed on the way stay in the manager's cache, so a pass that follows
// on the same manager does not hash the files again.
struct Selection {
  Json era_id;
  Json version;
  std::vector<std::pair<std::string, std::int64_t>> files;  // path, size
  std::int64_t bytes = 0;
};

Selection select_as_a_pass_would(SyncManager& m) {
  probe_server_version(m);
  auto data = std::make_shared<Json>(fetch_document(m, "/data/manifest"));
  const Manifest server_manifest(_drop_retired_found_pnl_long_files(_drop_agent_bundle_declaration_files(data)));
  if (const std::shared_ptr<Manifest> local = m.get_manifest(); local && local->era_id != server_manifest.era_id) {
    throw EraError("Era mismatch: local era_id=" + text_of_json(local->era_id) +
                   ", server era_id=" + text_of_json(server_manifest.era_id));
  }
  SyncResult scratch;
  Selection selection{server_manifest.era_id, server_manifest.version, {}, 0};
  const Json selected = m._select_files_to_download(server_manifest, scratch);
  for (const auto& [path, info] : selected.items()) {
    const std::int64_t size = info.is_object() && info.contains("size_bytes") ? integer_of(info["size_bytes"]) : 0;
    selection.files.emplace_back(path, size);
    selection.bytes += size;
    log_info("Selected %s (%d bytes)", {path, size});
  }
  log_info("Selected %d file(s), %d bytes, to fetch", {static_cast<std::int64_t>(selection.files.size()), selection.bytes});
  return selection;
}

int run_sync_dry(const GlobalOptions& g, SyncManager& m) {
  const Selection selection = select_as_a_pass_would(m);
  if (g.json) {
    Json files = Json::array();
    for (const auto& [path, size] : selection.files) files.push_back(path);
    print_json(Json{{"dry_run", true}, {"era_id", selection.era_id}, {"version", selection.version},
                    {"files", files}, {"bytes", selection.bytes}});
    return kExitOk;
  }
  std::cout << "Dry run: a sync would fetch " << selection.files.size() << " file(s), " << bytes_text(selection.bytes)
            << ", for era " << text_of_json(selection.era_id) << " version " << text_of_json(selection.version)
            << "; nothing was written.\n";
  for (const auto& [path, size] : selection.files) std::cout << "  " << path << "  " << bytes_text(size) << "\n";
  return kExitOk;
}

// Names each file of a batch as it completes (-v, and --log-level info).
// The library's progress counts files without naming them; so the files
// are chosen beforehand as the pass chooses them, and one counts as done
// once its path holds a new file (another inode: a download is renamed
// into place) of the expected size.
class CompletedFileNamer {
 public:
  CompletedFileNamer(const std::string& data_dir, const std::vector<std::pair<std::string, std::int64_t>>& files,
                     TerminalProgress& progress, bool print)
      : progress_(progress), print_(print) {
    for (const auto& [path, size] : files) {
      const std::string local = _manifest_local_path(data_dir, path);
      const std::optional<FileStat> before = lstat_path(local);
      pending_.push_back({path, local, size, before ? before->inode : 0});
    }
  }

  // From the progress observer: names as many newly done files as the
  // count says there are. Downloads finish roughly in the order chosen, so
  // the search starts at the front.
  void tick(std::int64_t files_done) {
    std::lock_guard<std::mutex> lock(mu_);
    for (auto it = pending_.begin(); named_ < files_done && it != pending_.end();) {
      const std::optional<FileStat> now = lstat_path(it->local);
      if (now && now->inode != it->inode_before && now->size == it->size) {
        ++named_;
        log_info("Fetched %s (%d bytes)", {it->path, it->size});
        if (print_) {
          progress_.clear_line();
          std::cout << "  fetched  " << it->path << "  " << bytes_text(it->size) << std::endl;
        }
        it = pending_.erase(it);
      } else {
        ++it;
      }
    }
  }

 private:
  struct Pending {
    std::string path;
    std::string local;
    std::int64_t size;
    std::uint64_t inode_before;
  };
  TerminalProgress& progress_;
  const bool print_;
  std::mutex mu_;
  std::list<Pending> pending_;
  std::int64_t named_ = 0;
};

// Whether files are to be named as they complete.
bool names_files(const GlobalOptions& g) { return (g.verbose && !g.json) || g.log_level != "warning"; }

ProgressObserver naming_observer(TerminalProgress& progress, std::shared_ptr<CompletedFileNamer> namer) {
  return [draw = progress.observer(), namer](const DownloadProgress& p) {
    if (namer) namer->tick(p.files_done);
    draw(p);
  };
}

int run_sync(const GlobalOptions& g, bool dry_run) {
  if (dry_run) {
    auto manager = open_manager(g, "sync", true);
    return run_sync_dry(g, *manager);
  }
  TerminalProgress progress;
  const InterruptNotice interrupt([&progress] { return interrupted_notice(progress, "sync"); });
  auto manager = open_manager(g, "sync", true);
  wait_for_other_process(*manager);
  log_info("Syncing %s from %s", {manager->_data_dir, manager->_server_url});
  std::shared_ptr<CompletedFileNamer> namer;
  if (names_files(g)) {
    namer = std::make_shared<CompletedFileNamer>(manager->_data_dir, select_as_a_pass_would(*manager).files, progress,
                                                 g.verbose && !g.json);
  }
  manager->set_progress_observer(naming_observer(progress, namer));
  const SyncResult result = manager->sync();
  progress.finish();
  log_info("Sync done: %d bytes downloaded", {result.bytes_downloaded});
  print_sync_result(result, "Sync", output_style(g));
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
  const std::shared_ptr<Manifest> manifest = manager->get_manifest();
  log_info("Verifying %s against era %s version %s: %d file(s)",
           {manager->_data_dir, text_of_json(manifest->era_id), text_of_json(manifest->version),
            static_cast<std::int64_t>(manifest->entries().size())});
  const VerifyResult result = manager->verify();
  log_info("Verified: %d corrupted, %d missing",
           {static_cast<std::int64_t>(result.corrupted_files.size()), static_cast<std::int64_t>(result.missing_files.size())});
  print_verify_result(result, g.json);
  return result.valid ? kExitOk : kExitInvalid;
}

int run_repair(const GlobalOptions& g, const std::vector<std::string>& paths) {
  TerminalProgress progress;
  const InterruptNotice interrupt([&progress] { return interrupted_notice(progress, "repair"); });
  auto manager = open_manager(g, "repair", true);
  refuse_unknown_paths(*manager, paths);
  wait_for_other_process(*manager);
  std::shared_ptr<CompletedFileNamer> namer;
  if (names_files(g)) {
    const std::shared_ptr<Manifest> manifest = manager->get_manifest();
    std::vector<std::pair<std::string, std::int64_t>> files;
    for (const std::string& path : paths) files.emplace_back(path, manifest->find(path)->size_bytes);
    namer = std::make_shared<CompletedFileNamer>(manager->_data_dir, files, progress, g.verbose && !g.json);
  }
  manager->set_progress_observer(naming_observer(progress, namer));
  const SyncResult result = manager->repair(paths);
  progress.finish();
  print_sync_result(result, "Repair", output_style(g));
  return kExitOk;
}

int run_needs_sync(const GlobalOptions& g) {
  auto manager = open_manager(g, "needs-sync", true);
  // "Not due" comes only from a server that answered, so the check that
  // runs at every idle poll costs one request; "due" is confirmed.
  const bool due = manager->needs_sync();
  const Json version = due ? probe_server_version(*manager) : Json::object();
  print_needs_sync(due, g.json);
  if (const auto era = era_ahead(*manager, version); era && !g.quiet) {
    std::cerr << transition_advice(*manager, *era) << "\n";
  }
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
  const Json version = probe_server_version(*manager);
  report.server_version = version.value("version", Json(nullptr));
  report.server_era_id = version.value("era_id", Json(nullptr));
  report.needs_sync = manager->needs_sync();
  report.status = manager->status();
  if (const auto era = era_ahead(*manager, version)) report.advice = transition_advice(*manager, *era);
  print_status(report, g.json);
  return kExitOk;
}

int run_transition(const GlobalOptions& g, std::int64_t era) {
  if (era < 0) throw UsageError("era " + std::to_string(era) + " cannot exist: eras are numbered from 0");
  const InterruptNotice interrupt([era] {
    return "Interrupted: files already moved into place stay there, and the data directory may mix two eras; "
           "run `qmsync transition " + std::to_string(era) + "` again to finish the move.";
  });
  auto manager = open_manager(g, "transition", true);
  wait_for_other_process(*manager);
  log_info("Asking %s for the active era, then staging era %d's changed files beside the live ones",
           {manager->_server_url, era});
  if (!g.json && !g.quiet) std::cout << "Moving " << manager->_data_dir << " to era " << era << "..." << std::endl;
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

int run_cleanup(const GlobalOptions& g, bool all, bool dry_run, bool yes) {
  auto manager = open_manager(g, "cleanup", false);
  std::vector<std::string> targets;
  std::int64_t bytes = 0;
  for (const SyncManager::CleanupTarget& target : manager->_cleanup_targets(!all)) {
    bytes += target.tree ? tree_file_bytes(target.path) : stat_path(target.path).size;
    log_info("%s %s", {dry_run ? "Would delete" : "Deleting", target.path});
    targets.push_back(target.path);
  }
  if (dry_run) {
    if (g.json) {
      print_json(Json{{"dry_run", true}, {"paths", targets}, {"bytes", bytes}});
    } else {
      std::cout << "Dry run: cleanup" << (all ? " --all" : "") << " would delete " << targets.size()
                << " path(s), " << bytes_text(bytes) << "; nothing was deleted.\n";
      for (const std::string& path : targets) std::cout << "  " << path << "\n";
    }
    return kExitOk;
  }
  if (all && !yes && !targets.empty()) {
    if (::isatty(STDIN_FILENO) != 1) {
      throw UsageError("cleanup --all deletes the current era's data in " + manager->_data_dir +
                       " as well; pass --yes to confirm, or --dry-run to see what would go");
    }
    std::cerr << "Delete the current era's data in " << manager->_data_dir << " as well (" << targets.size()
              << " path(s), " << bytes_text(bytes) << ")? [y/N] " << std::flush;
    std::string answer;
    std::getline(std::cin, answer);
    if (answer != "y" && answer != "Y" && answer != "yes") {
      if (!g.quiet) std::cerr << "Nothing deleted.\n";
      return kExitOk;
    }
  }
  const std::int64_t freed = manager->cleanup_old_eras(!all);
  if (!g.quiet || g.json) print_cleanup_result(freed, all, g.json);
  return kExitOk;
}

}  // namespace

void add_client_commands(CLI::App& app, const GlobalOptions& g, std::vector<Command>& commands) {
  auto dry_run = std::make_shared<bool>(false);
  CLI::App* sync = app.add_subcommand("sync", "one sync pass: bring the data directory up to the server's manifest");
  sync->add_flag("--dry-run", *dry_run, "say what would be fetched, and how many bytes, and write nothing");
  commands.push_back({sync, [&g, dry_run] { return run_sync(g, *dry_run); }});
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
  transition->add_option("ERA", *era, "the era to move to")->required()->check(whole_number());
  commands.push_back({transition, [&g, era] { return run_transition(g, *era); }});

  auto all = std::make_shared<bool>(false);
  auto cleanup_dry_run = std::make_shared<bool>(false);
  auto yes = std::make_shared<bool>(false);
  CLI::App* cleanup = app.add_subcommand("cleanup", "delete the directories of eras other than the current one");
  cleanup->add_flag("--all", *all,
                    "also delete the current era's data (manifest, seed and data folders); asks first on a terminal");
  cleanup->add_flag("--dry-run", *cleanup_dry_run, "list what would be deleted, and delete nothing");
  cleanup->add_flag("-y,--yes", *yes, "delete with --all without asking (needed off a terminal)");
  commands.push_back(
      {cleanup, [&g, all, cleanup_dry_run, yes] { return run_cleanup(g, *all, *cleanup_dry_run, *yes); }});
}

}  // namespace quillmarsh::sync::cli
