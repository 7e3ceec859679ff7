// qmsync watch: one shared manager on the data directory, acquired as a
// consumer, so that the poll thread and the era monitor follow the server
// until SIGINT or SIGTERM. What happens is told one line at a time.
#include <signal.h>

#include <chrono>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "cli/commands.h"
#include "cli/exit_codes.h"
#include "cli/output.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/support/log.h"
#include "sync/support/repr.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync::cli {
namespace {

// Lines come from the component's threads and the main thread alike.
class EventPrinter {
 public:
  explicit EventPrinter(bool json) : json_(json) {}

  // `fields`: the event's numbers (files, bytes, era, version), which the
  // JSON form carries beside the message.
  void say(const std::string& event, const std::string& text, const Json& fields = Json::object()) {
    std::lock_guard<std::mutex> lock(mu_);
    // A close stays announced poll after poll; once is enough to read.
    if (text == last_text_) return;
    last_text_ = text;
    if (json_) {
      Json j = Json::object();
      j["time"] = now_text("%Y-%m-%dT%H:%M:%S%z");
      j["event"] = event;
      j["message"] = text;
      for (const auto& [key, value] : fields.items()) j[key] = value;
      print_json(j);
    } else {
      std::cout << now_text("%H:%M:%S") << "  " << text << std::endl;
    }
  }

  // Whether the server could not be reached at the last try; told once each
  // way, however many polls fail meanwhile.
  bool set_reachable(bool reachable) {
    std::lock_guard<std::mutex> lock(mu_);
    const bool changed = reachable != reachable_;
    reachable_ = reachable;
    return changed;
  }
  bool reachable() {
    std::lock_guard<std::mutex> lock(mu_);
    return reachable_;
  }

 private:
  // Local time; ISO 8601 with its offset for machines, the clock alone for
  // a person watching.
  static std::string now_text(const char* format) {
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream out;
    out << std::put_time(&local, format);
    std::string text = out.str();
    // %z gives "+0100"; the extended form of the date wants "+01:00".
    if (text.size() > 5 && (text[text.size() - 5] == '+' || text[text.size() - 5] == '-')) {
      text.insert(text.size() - 2, ":");
    }
    return text;
  }

  const bool json_;
  std::mutex mu_;
  std::string last_text_;
  bool reachable_ = true;
};

// Told of every real era advance by the transition; a terminal has no
// searches to track, so it only says so.
class AnnouncingTracking : public SearchTracking {
 public:
  explicit AnnouncingTracking(std::shared_ptr<EventPrinter> printer) : printer_(std::move(printer)) {}
  std::shared_ptr<SearchTracker> open_tracker(const std::string&, std::optional<std::shared_ptr<Identity>>) override {
    return std::make_shared<Tracker>(printer_);
  }

 private:
  class Tracker : public SearchTracker {
   public:
    explicit Tracker(std::shared_ptr<EventPrinter> printer) : printer_(std::move(printer)) {}
    void handle_era_transition(std::int64_t new_era_id, std::optional<std::int64_t> previous_era_id) override {
      printer_->say("era_changed",
                    "Moved the data directory from era " +
                        (previous_era_id ? std::to_string(*previous_era_id) : std::string("(none)")) + " to era " +
                        std::to_string(new_era_id) + ".",
                    Json{{"era", new_era_id}, {"previous_era", previous_era_id ? Json(*previous_era_id) : Json()}});
    }
    void close() override {}

   private:
    std::shared_ptr<EventPrinter> printer_;
  };
  std::shared_ptr<EventPrinter> printer_;
};

bool unreachable_failure(const LogRecord& record) {
  for (const std::string* text : {&record.message, &record.failure}) {
    // The transport's own words, and libcurl's for a connection that the
    // server's end dropped or never accepted.
    for (const char* sign : {"Connection failed to ", "Timed out fetching ", "Couldn't connect", "Failed to connect",
                             "Send failure", "Recv failure", "Connection reset", "Connection refused"}) {
      if (text->find(sign) != std::string::npos) return true;
    }
  }
  return false;
}

// The innermost reason of a transport failure: what follows its last ": ".
std::string last_failure_text(const LogRecord& record) {
  const std::string& m = record.message;
  const std::size_t colon = m.rfind(": ");
  return colon == std::string::npos ? m : m.substr(colon + 2);
}

// The component's own log records, in words for a person; with --log-level
// info or debug the records themselves follow.
LogSink log_sink(std::shared_ptr<EventPrinter> printer, LogLevel shown) {
  return [printer, shown](const LogRecord& record) {
    const std::string& m = record.message;
    const std::string_view announced = "Scheduled close announced at ";
    if (m.starts_with(announced)) {
      std::string when = m.substr(announced.size());
      if (const auto end = when.rfind(". Continue normal operation."); end != std::string::npos) when.resize(end);
      printer->say("close_announced", "The server announced the close of this era at " + when + ".");
    } else if (m.starts_with("Era transition cancelled")) {
      printer->say("close_cancelled", "The era's close was called off; work goes on in this era.");
    } else if (m.starts_with("Old era cleanup completed")) {
      printer->say("cleanup", m + ".");
    } else if (m.find("Era mismatch: local era_id=") != std::string::npos) {
      // The poll thread met the new era before the era monitor did.
      printer->say("era_ahead", "The server has moved to another era; the era monitor will move the data.");
    } else if (record.level >= LogLevel::warning && unreachable_failure(record)) {
      // One poll fails in several places; the main loop tells when it is back.
      if (printer->set_reachable(false)) {
        printer->say("unreachable", "The server cannot be reached (" + last_failure_text(record) +
                                        "); trying again at each poll.");
      }
    } else if (record.level >= LogLevel::warning) {
      printer->say("problem", "Problem: " + m + (record.failure.empty() ? "" : " (" + record.failure + ")"));
      return;
    }
    if (record.level >= shown && record.level < LogLevel::warning) {
      std::cerr << log_level_name(record.level) << " " << kLoggerName << ": " << m << std::endl;
    }
  };
}

std::string manifest_text(const std::shared_ptr<Manifest>& manifest) {
  if (!manifest) return "no manifest yet";
  return "era " + text_of_json(manifest->era_id) + ", version " + text_of_json(manifest->version) + ", " +
         std::to_string(manifest->files().is_object() ? manifest->files().size() : 0) + " files";
}

// The same as fields of a JSON event.
Json manifest_fields(const std::shared_ptr<Manifest>& manifest) {
  if (!manifest) return Json::object();
  return Json{{"era", manifest->era_id},
              {"version", manifest->version},
              {"files", manifest->files().is_object() ? manifest->files().size() : 0}};
}

LogLevel level_of(const std::string& name) {
  if (name == "debug") return LogLevel::debug;
  if (name == "info") return LogLevel::info;
  return LogLevel::warning;
}

int run_watch(const GlobalOptions& g, double poll_interval_s) {
  if (!(poll_interval_s > 0)) throw UsageError("--poll-interval must be a positive number of seconds");
  const std::string data_dir = required_data_dir(g, "watch");
  const std::string server = required_server(g, "watch");
  // Blocked before any thread starts, so that every thread inherits the
  // mask and the signals arrive only where this thread waits for them.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  auto printer = std::make_shared<EventPrinter>(g.json);
  search_tracking_slot().set(std::make_shared<AnnouncingTracking>(printer));
  const LogSink previous_sink = set_log_sink(log_sink(printer, level_of(g.log_level)));

  std::shared_ptr<SyncManager> manager;
  try {
    manager = SyncManager::get_or_create(data_dir, server, token_source(g), poll_interval_s);
  } catch (const ValueError& e) {
    throw UsageError("cannot use --server " + quoted(server) + ": " + e.what());
  }
  manager->set_progress_observer([printer](const DownloadProgress& p) {
    if (p.files_selected > 0 && p.files_done == p.files_selected) {
      printer->say("downloaded",
                   "Downloaded " + std::to_string(p.files_done) + " file(s), " + std::to_string(p.bytes_done) +
                       " bytes.",
                   Json{{"files", p.files_done}, {"bytes", p.bytes_done}});
    }
  });
  auto on_era_event = std::make_shared<const SyncManager::EraCallbackFn>(
      [printer](const std::string& event_type, std::int64_t era_id) {
        if (event_type == "kill") {
          printer->say("era_change",
                       "Era change under way (era " + std::to_string(era_id) + " in force): work on the data is paused.",
                       Json{{"era", era_id}});
        } else if (event_type == "restart") {
          printer->say("era_resumed", "Work on the data resumed on era " + std::to_string(era_id) + ".",
                       Json{{"era", era_id}});
        }
      });
  manager->register_era_callback(on_era_event);

  printer->say("start",
               "Watching " + data_dir + " for " + server + " every " + quoted_json(Json(poll_interval_s)) + " s (" +
                   manifest_text(manager->get_manifest()) + "). Ctrl-C or SIGTERM stops.",
               manifest_fields(manager->get_manifest()));
  manager->acquire();

  // Nothing but this loop runs on the main thread: it notices new
  // manifests and waits for a stop signal with a short timeout.
  std::string shown = manifest_text(manager->get_manifest());
  int signal_number = 0;
  auto next_probe = std::chrono::steady_clock::now();
  while (true) {
    const timespec tick{0, 250 * 1000 * 1000};
    signal_number = sigtimedwait(&stop_signals, nullptr, &tick);
    if (signal_number > 0) break;
    const std::shared_ptr<Manifest> manifest = manager->get_manifest();
    const std::string now = manifest_text(manifest);
    if (now != shown) {
      shown = now;
      printer->say("manifest", "Now in force: " + now + ".", manifest_fields(manifest));
    }
    // The component says nothing when the server answers again, so while it
    // is unreachable the version document is asked for here, once a poll.
    if (!printer->reachable() && std::chrono::steady_clock::now() >= next_probe) {
      next_probe = std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                          std::chrono::duration<double>(poll_interval_s));
      try {
        manager->_http_get(server + "/data/manifest/version");
        if (printer->set_reachable(true)) printer->say("reachable", "The server answers again.");
      } catch (const std::exception& e) {
        log_debug("The server is still unreachable: %s", {e});
      }
    }
  }
  printer->say("stop", std::string("Stopping on ") + (signal_number == SIGINT ? "SIGINT" : "SIGTERM") +
                           ": waiting for work in progress.");
  manager->unregister_era_callback(on_era_event);
  manager->release();
  manager->set_progress_observer(nullptr);
  printer->say("stopped", "Stopped (" + manifest_text(manager->get_manifest()) + ").");
  set_log_sink(previous_sink);
  return kExitOk;
}

}  // namespace

void add_watch_command(CLI::App& app, const GlobalOptions& g, std::vector<Command>& commands) {
  auto poll_interval = std::make_shared<double>(60.0);
  CLI::App* watch = app.add_subcommand(
      "watch", "follow the server until SIGINT or SIGTERM: sync new manifest versions, move to new eras");
  watch->add_option("--poll-interval", *poll_interval,
                    "seconds between polls of the manifest version and of the era (default 60)")
      ->check(seconds())
      ->option_text("S");
  commands.push_back({watch, [&g, poll_interval] { return run_watch(g, *poll_interval); }});
}

}  // namespace quillmarsh::sync::cli
