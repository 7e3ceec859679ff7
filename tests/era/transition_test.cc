// The era monitor (what each answer of /era/current makes it do, the
// transitions it runs and the nudge after a new era; single polls are driven
// on monitors that were never started) and the transition itself: what it
// fetches and sweeps, what it tells the host's modules, and what a refusal
// or a moving era leaves on disk.
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sync/collaborators/agent_onboarding.h"
#include "sync/collaborators/auth.h"
#include "sync/collaborators/deployment.h"
#include "sync/collaborators/identity.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/era/era_thread.h"
#include "sync/errors.h"
#include "sync/support/file_tree.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using Events = std::vector<std::string>;
using Files = std::map<std::string, std::string>;
using Waits = std::vector<std::pair<double, std::optional<std::string>>>;
using testing::EventLog;
using testing::Fault;
using testing::outcome;
using testing::seed_bytes;

const std::string kWheelAdvice =
    ". Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/quillmarsh-*.whl";

// A module put in its slot for one test; the one it replaced goes back after.
template <class Module>
class InSlot {
 public:
  InSlot(CollaboratorSlot<Module>& slot, std::shared_ptr<Module> module)
      : slot_(slot), previous_(slot.set(std::move(module))) {}
  ~InSlot() { slot_.set(previous_); }

 private:
  CollaboratorSlot<Module>& slot_;
  std::shared_ptr<Module> previous_;
};

// A deployment module whose answers a test sets, running version 1.0.0.
// Versions compare as the default module compares them.
class ScriptedDeployment : public Deployment {
 public:
  std::optional<std::string> newer_version;
  UpdateResult update_result{};
  std::function<void()> auto_update_throws;  // called instead of answering
  std::vector<std::string> auto_update_calls;

  std::string _CURRENT_VERSION() override { return "1.0.0"; }
  std::optional<std::string> check_update(const std::string&) override { return newer_version; }
  int _compare_versions(const std::string& a, const std::string& b) override { return compare_dotted_versions(a, b); }
  UpdateResult auto_update(const std::string& min_ver) override {
    auto_update_calls.push_back(min_ver);
    if (auto_update_throws) auto_update_throws();
    return update_result;
  }
};

// The host's other modules in one object, which logs what each is told:
// "auth N", "open identity=owner|null|absent", "handle N prev=P|None",
// "close" and "nudge EVENT N prev=P|None". Every tracker it opens is itself,
// and every directory resolves to one identity unless resolving fails.
class HostModules : public Auth,
                    public IdentityModule,
                    public SearchTracking,
                    public SearchTracker,
                    public AgentOnboarding,
                    public std::enable_shared_from_this<HostModules> {
 public:
  explicit HostModules(EventLog& log) : log_(log) {}
  bool identity_fails = false;
  bool auth_fails = false;
  bool tracker_fails = false;
  bool handle_fails = false;

  std::shared_ptr<Identity> resolve_identity_for_data_dir(const std::string&) override {
    if (identity_fails) throw RuntimeError("no identity file");
    return owner_;
  }
  void notify_era_change(std::int64_t new_era_id) override {
    log_.add("auth " + std::to_string(new_era_id));
    if (auth_fails) throw AuthError("token store locked");
  }
  std::shared_ptr<SearchTracker> open_tracker(const std::string&,
                                              std::optional<std::shared_ptr<Identity>> identity) override {
    log_.add("open identity=" + std::string(!identity ? "absent" : *identity ? "owner" : "null"));
    if (tracker_fails) throw RuntimeError("tracker database locked");
    return shared_from_this();
  }
  void handle_era_transition(std::int64_t new_era_id, std::optional<std::int64_t> previous_era_id) override {
    log_.add("handle " + std::to_string(new_era_id) + " prev=" + era_text(previous_era_id));
    if (handle_fails) throw RuntimeError("search table busy");
  }
  void close() override { log_.add("close"); }
  void update_nudge(const std::string& event, std::int64_t new_era_id,
                    std::optional<std::int64_t> previous_era_id) override {
    log_.add("nudge " + event + " " + std::to_string(new_era_id) + " prev=" + era_text(previous_era_id));
  }

 private:
  static std::string era_text(std::optional<std::int64_t> era) { return era ? std::to_string(*era) : "None"; }
  EventLog& log_;
  const std::shared_ptr<Identity> owner_ = std::make_shared<Identity>();
};

// The servers of SyncFixture answering /era/current in either shape, the
// host's modules in their slots, and a picture of the live directory to
// compare before and after.
class EraTest : public testing::SyncFixture {
 protected:
  // What /era/current answers.
  void answer_era(const Json& body) {
    api_.put("/era/current", json_text(body), {{"Content-Type", "application/json"}});
  }
  // /era/current in the flat shape; a missing `state` leaves the key out.
  static Json flat_era(Json era_id, std::optional<std::string> state = "active",
                       std::optional<std::string> min_library_version = std::nullopt) {
    Json era = {{"era_id", std::move(era_id)}};
    if (state) era["state"] = *state;
    if (min_library_version) era["min_library_version"] = *min_library_version;
    return era;
  }
  // /era/current in the wrapped shape: {"era": era, "state": outer_state}.
  static Json wrapped_era(Json era, std::optional<Json> outer_state = std::nullopt) {
    Json data = {{"era", std::move(era)}};
    if (outer_state) data["state"] = std::move(*outer_state);
    return data;
  }

  // Publishes `files` (path -> bytes) as era `era`, with its vocabulary and
  // seed, and names that era active. Returns the manifest as served.
  Json publish_era_data(std::int64_t era, const Files& files) {
    Json entries = Json::object();
    for (const auto& [file_path, bytes] : files) entries[file_path] = store_file(file_path, bytes);
    const Json m = with_artefacts(manifest(era, 1, std::move(entries)));
    publish(m);
    answer_era(flat_era(era));
    return m;
  }

  static Files era1_files() {
    return {{"features/a/keep.bin", "same in both eras"},
            {"features/a/change.bin", "era one bytes"},
            {"named_universes/gone.json", "{\"era\": 1}"},
            {"extras/era1_only.txt", "outside the swept folders"},
            {"found_signals/r/g/s/pnl.arrow", "kept signal"}};
  }
  // Era 1's files with one changed and one gone.
  static Files era2_files() {
    Files era2 = era1_files();
    era2.erase("named_universes/gone.json");
    era2["features/a/change.bin"] = "era two bytes";
    return era2;
  }
  // A data directory synced to era 1, with era 1 active; the servers'
  // records start empty.
  void sync_era1() {
    publish_era_data(1, era1_files());
    manager_ = make_manager();
    manager_->sync();
    api_.clear_requests();
    store_.clear_requests();
  }

  // The callbacks a monitor hands the transition, logging into events_.
  std::function<void()> kill_fn() { return [this] { events_.add("kill"); }; }
  std::function<void()> restart_fn() { return [this] { events_.add("restart"); }; }
  // A monitor of manager_ on the API server, killing searches with `kill`.
  std::shared_ptr<EraThread> monitor(std::function<void()> kill = nullptr) {
    return std::make_shared<EraThread>(api_.base_url(), [] { return std::string("era-token"); }, manager_, 600.0,
                                       kill ? std::move(kill) : kill_fn(), restart_fn());
  }
  void transition(std::int64_t era, bool with_restart = true) {
    manager_->trigger_era_transition(era, kill_fn(), with_restart ? restart_fn() : nullptr);
  }
  // Events of a run that reached the host's modules: kill, auth, tracker, restart.
  static Events told(std::int64_t era, const std::string& prev) {
    const std::string n = std::to_string(era);
    return {"kill", "auth " + n, "open identity=owner", "handle " + n + " prev=" + prev, "close", "restart"};
  }
  std::size_t count(const std::string& event) const { return std::ranges::count(events_.events(), event); }

  // Every file below the data directory, dot-directories included, with its bytes.
  Files live_files() const {
    Files out;
    for (const std::string& rel : walk_files(dir_.path(), [](std::string_view) { return true; })) {
      out[rel] = read_file(path(rel));
    }
    return out;
  }
  // No run left its marks behind (a directory in the lock file's place is a
  // test's, to make the file unwritable).
  void expect_no_run_leftovers(std::int64_t staged_era) const {
    EXPECT_FALSE(path_exists(path(".transition_lock")) && !is_directory(path(".transition_lock")));
    EXPECT_FALSE(path_exists(path(".transition_era" + std::to_string(staged_era) + ".tmp")));
    EXPECT_FALSE(manager_->_in_transition.load());
    EXPECT_FALSE(manager_->status().has_value());
  }

  EventLog events_;
  std::shared_ptr<SyncManager> manager_;
  Waits retry_waits_;
  std::shared_ptr<ScriptedDeployment> deployment_ = std::make_shared<ScriptedDeployment>();
  std::shared_ptr<HostModules> host_ = std::make_shared<HostModules>(events_);

 private:
  // The library's default deployment unless a test scripts one.
  InSlot<Deployment> deployment_in_slot_{deployment_slot(), deployment_slot().get()};
  InSlot<IdentityModule> identity_in_slot_{identity_slot(), host_};
  InSlot<Auth> auth_in_slot_{auth_slot(), host_};
  InSlot<SearchTracking> tracking_in_slot_{search_tracking_slot(), host_};
  InSlot<AgentOnboarding> onboarding_in_slot_{agent_onboarding_slot(), host_};
};
using EraMonitor = EraTest;
using Transition = EraTest;

// One row of the monitor's state table: its state before, the server's
// answer, and what must follow.
struct Row {
  const char* name;
  bool in_closing;
  Json known;  // null: no era known
  Json answer;
  std::optional<std::string> failure;  // the transition was entered: its failure's recorded context
  bool restart;                        // the close was called off
  bool in_closing_after;
};

// Over a manager with no manifest, every transition fails (a "closing" era
// fails the gate, an active one has no manifest to fetch), so the record of
// the failure shows which branch called it; the failing run leaves the
// known era as it was in every row.
TEST_F(EraMonitor, EachStateAndAnswerLeadsToItsAction) {
  const std::vector<Row> rows = {
      {"active, era = K", false, 1, flat_era(1, "active"), std::nullopt, false, false},
      {"active, era != K", false, 1, flat_era(2, "active"), "new era", false, false},
      {"lower era counts", false, 3, flat_era(2, "active"), "new era", false, false},
      {"active, K absent", false, nullptr, flat_era(5, "active"), std::nullopt, false, false},
      {"closing, era = K", false, 1, flat_era(1, "closing"), "closing", false, true},
      {"closing, K absent", false, nullptr, flat_era(3, "closing"), "closing", false, true},
      // The transition is called with no era: with no manifest to compare
      // it with, it runs until its first look at the era fails.
      {"closing without era id", false, 1, wrapped_era(nullptr, Json("closing")), "closing", false, true},
      {"in closing: closing, era = K", true, 1, flat_era(1, "closing"), std::nullopt, false, true},
      {"in closing: closing, era != K", true, 1, flat_era(2, "closing"), "new era", false, false},
      {"in closing: active, era = K", true, 1, flat_era(1, "active"), std::nullopt, true, false},
      {"in closing: era as text is another value", true, 7, flat_era("7", "active"), "new era", false, false},
      {"in closing: era as float equals K", true, 7, flat_era(7.0, "active"), std::nullopt, true, false},
      // Compared as they stand: text that is no number is another era, and
      // the transition's gate is what refuses it.
      {"era as text without a number", true, 1, flat_era("seven", "active"), "new era", false, false},
      {"K as text, era as text", false, "seven", flat_era("seven", "active"), std::nullopt, false, false},
      {"in closing: no state means active", true, 1, flat_era(1, std::nullopt), std::nullopt, true, false},
      {"in closing: active, no era, K absent", true, nullptr, wrapped_era(nullptr, Json("active")), std::nullopt, true,
       false},
      {"in closing: active, K absent", true, nullptr, flat_era(2, "active"), std::nullopt, false, true},
      {"in closing: active, era != K", true, 1, flat_era(2, "active"), "new era", false, false},
      // Unanswered and unreadable answers are failed polls that change
      // nothing, the first silently: null stands for a 503 in front of the
      // last row's answer, which would start a transition if it came
      // through, and a string for a body sent as it is.
      {"in closing: unanswered", true, 1, nullptr, std::nullopt, false, true},
      {"in closing: no JSON", true, 1, "{not json", std::nullopt, false, true},
      {"in closing: no object", true, 1, Json::array({1, 2}), std::nullopt, false, true},
      {"in closing: between eras", true, 1, wrapped_era(nullptr), std::nullopt, false, true},
      {"unknown state, era = K", false, 1, flat_era(1, "paused"), std::nullopt, false, false},
      {"null state, era = K, in closing", true, 1, Json{{"era_id", 1}, {"state", nullptr}}, std::nullopt, false, true},
  };
  manager_ = make_manager();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    events_.clear();
    log_.clear();
    if (row.answer.is_null()) {
      api_.fault("/era/current", {.status = 503, .times = 1});
    } else if (row.answer.is_string()) {
      api_.put("/era/current", row.answer.get<std::string>());
    } else {
      answer_era(row.answer);
    }
    auto mon = monitor();
    mon->_last_known_era_id = row.known;
    mon->_in_closing = row.in_closing;

    mon->_poll_once();

    EXPECT_EQ(count("kill"), row.failure ? 1u : 0u);
    EXPECT_EQ(count("restart"), row.restart ? 1u : 0u);
    EXPECT_EQ(mon->_in_closing, row.in_closing_after);
    EXPECT_EQ(mon->_last_known_era_id, row.known);
    if (row.failure) {
      ASSERT_TRUE(mon->_last_transition_error.has_value());
      EXPECT_TRUE(mon->_last_transition_error->starts_with(*row.failure + ": ")) << *mon->_last_transition_error;
    } else {
      EXPECT_FALSE(mon->_last_transition_error.has_value());
    }
    // A "closing" answer announces its close; no answer here names a time.
    EXPECT_EQ(log_.count(LogLevel::info, "Scheduled close announced at None. Continue normal operation."),
              row.failure == "closing" ? 1u : 0u);
    for (const std::string& event : events_.events()) EXPECT_FALSE(event.starts_with("nudge")) << event;
    EXPECT_EQ(logged_starting("Era poll failed: "), row.answer.is_string() || row.answer.is_array() ? 1u : 0u);
  }

  // A token source that fails is a failed poll.
  log_.clear();
  std::make_shared<EraThread>(api_.base_url(), []() -> std::string { throw AuthError("token store locked"); }, manager_)
      ->_poll_once();
  EXPECT_EQ(log_.count(LogLevel::warning, "Era poll failed: token store locked"), 1u);
}

// The monitor meets a close that names no era, the same era's close is run
// directly, and the next era comes through the monitor; the transition's own
// looks see it in the other shape, with a textual id.
TEST_F(Transition, ACloseOfNoEraOrTheSameTellsNobodyAndTheNextEraFetchesOnlyWhatChangedAndNudges) {
  sync_era1();
  const Files synced = live_files();
  bool in_transition_at_kill = false;
  auto mon = monitor([&] {
    events_.add("kill");
    in_transition_at_kill = manager_->_in_transition.load();
  });
  mon->_last_known_era_id = 1;
  // With an era on disk, a close that names no era cannot be ordered against
  // it: the transition fails before it has touched anything.
  answer_era(wrapped_era(nullptr, Json("closing")));
  mon->_poll_once();
  EXPECT_EQ(mon->_last_transition_error, "closing: '>' not supported between instances of 'NoneType' and 'int'");
  EXPECT_TRUE(events_.events().empty());

  answer_era(flat_era(1, "closing"));
  transition(1);
  EXPECT_EQ(events_.events(), (Events{"kill", "restart"}));
  for (const auto& [rel, bytes] : era1_files()) EXPECT_EQ(store_.request_count("/bucket/" + rel), 0u) << rel;
  EXPECT_EQ(live_files(), synced);
  expect_no_run_leftovers(1);
  events_.clear();
  store_.clear_requests();

  // Strays in the six data folders go; everything else stays.
  const std::vector<std::string> strays = {"features/stray.bin", "universe_masks/m/stray.bin", "features/.dotfile",
                                           "found_strategies/x/y.arrow"};
  for (const std::string& stray : strays) put_local(stray, "stray");
  const Files kept_extras = {{"features/.cache/kept.bin", "hidden dir"},
                             {".private/features/y.bin", "dot dir"},
                             {"notes.txt", "top-level file"},
                             {"other/x.bin", "other folder"}};
  for (const auto& [rel, bytes] : kept_extras) put_local(rel, bytes);
  // A link in a swept folder is not followed: what it points to lies outside.
  testing::TempDir outside;
  write_file(outside / "stray.bin", "not ours");
  ASSERT_EQ(::symlink(outside.path().c_str(), path("features/linked").c_str()), 0);

  Files era2 = era2_files();
  era2.erase("extras/era1_only.txt");  // only the old manifest names it
  era2["useful_signals/new.bin"] = "fresh";
  era2["features/a/decl.pxd"] = "a declaration a sync pass would drop";
  const Json m2 = publish_era_data(2, era2);
  // The monitor's poll sees era 2; every look of the run sees it wrapped.
  api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(2)), .times = 1});
  answer_era(wrapped_era(Json{{"era_id", "2"}}, Json("active")));
  // A dead run's staging of this era is not trusted, and its lock file
  // stops nothing.
  put_local(".transition_era2.tmp/features/a/change.bin.tmp", "junk");
  write_file(path(".transition_lock"), "123456789 from a crashed process");

  mon->_poll_once();
  EXPECT_TRUE(in_transition_at_kill);
  for (const char* fetched : {"features/a/change.bin", "useful_signals/new.bin", "features/a/decl.pxd",
                              "features/u/vocabulary.json"}) {
    EXPECT_EQ(store_.request_count("/bucket/" + std::string(fetched)), 1u) << fetched;
  }
  EXPECT_EQ(store_.requests().size(), 4u);

  for (const auto& [rel, bytes] : era2) EXPECT_EQ(read_file(path(rel)), bytes) << rel;
  for (const auto& [rel, bytes] : kept_extras) EXPECT_EQ(read_file(path(rel)), bytes) << rel;
  for (const std::string& gone : strays) EXPECT_FALSE(path_exists(path(gone))) << gone;
  EXPECT_EQ(read_file(outside / "stray.bin"), "not ours");
  EXPECT_FALSE(path_exists(path("named_universes/gone.json")));
  EXPECT_FALSE(path_exists(path("extras/era1_only.txt")));
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(2));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 2}");

  // The server's manifest whole, the entry a sync pass would drop included.
  EXPECT_EQ(read_file(path("manifest.json")), json_text(m2));
  ASSERT_TRUE(manager_->get_manifest());
  EXPECT_TRUE(manager_->get_manifest()->files().contains("features/a/decl.pxd"));
  const auto vocabulary = manager_->_vocabulary.load();
  ASSERT_TRUE(vocabulary);
  EXPECT_EQ((*vocabulary)["u"]["era_id"], 2);
  expect_no_run_leftovers(2);
  Events expected = told(2, "1");
  expected.push_back("nudge era_change 2 prev=1");
  EXPECT_EQ(events_.events(), expected);
  EXPECT_EQ(mon->_last_known_era_id, 2);
  EXPECT_FALSE(mon->_transition_failed || mon->_last_transition_error.has_value());
}

// Each row moves the directory one era on, the first from no era at all.
// Whatever the deployment or the host's modules do wrong lets the commit
// through: the new era is in place, and only a tracker's failure reaches the
// caller.
TEST_F(Transition, EachRunPutsItsEraInPlaceAndTellsTheHostsModulesWhateverFailsAmongThem) {
  manager_ = make_manager();
  struct Case {
    const char* name;
    std::function<void()> arrange;
    Events after_auth;  // "H" stands for the tracker's handling of the era
    std::string failure = "ok";
    std::vector<std::string> warnings = {};
    std::optional<std::string> min_library_version = std::nullopt;
  };
  const std::vector<Case> cases = {
      {"a first era, no restart", [this] { put_local("features/old/stray.bin", "stray"); },
       {"open identity=owner", "H", "close"}},
      {"no identity, and auth fails", [this] { host_->identity_fails = host_->auth_fails = true; },
       {"open identity=null", "H", "close", "restart"}, "ok",
       {"Failed to notify auth about era change: token store locked"}},
      {"the tracker's handling fails", [this] { host_->handle_fails = true; }, {"open identity=owner", "H", "close"},
       "RuntimeError: search table busy"},
      // A tracker that fails to open with the identity is tried without one.
      {"no tracker opens", [this] { host_->tracker_fails = true; }, {"open identity=owner", "open identity=absent"},
       "RuntimeError: tracker database locked"},
      // Below the minimum, and the update answers without a success flag: done.
      {"an update that names no outcome",
       [this] {
         deployment_slot().set(deployment_);
         deployment_->newer_version = "2.1.0";
       },
       {"open identity=owner", "H", "close", "restart"}, "ok", {}, "2.0"},
      // A minimum the era cannot state counts as met; the update is asked for
      // the running version, and its failure is only logged, as is a lock
      // file that cannot be written.
      {"a minimum that is no version",
       [this] {
         deployment_->update_result = UpdateResult{false, "disk full"};
         make_dirs(path(".transition_lock"));
       },
       {"open identity=owner", "H", "close", "restart"}, "ok",
       {"Invalid min_library_version from era config: two", "Auto-update failed: disk full",
        "Failed to write transition lock file: "},
       "two"},
  };
  std::int64_t era = 0;
  std::string previous_file = "features/old/stray.bin";
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string file = "features/a/x" + std::to_string(++era) + ".bin";
    host_->identity_fails = host_->auth_fails = host_->tracker_fails = host_->handle_fails = false;
    publish_era_data(era, {{file, "era " + std::to_string(era)}});
    answer_era(flat_era(era, "active", c.min_library_version));
    c.arrange();
    events_.clear();
    log_.clear();
    api_.clear_requests();
    // The first run is given no restart callback.
    EXPECT_EQ(outcome([&] { transition(era, era > 1); }), c.failure);
    Events expected = {"kill", "auth " + std::to_string(era)};
    for (const std::string& e : c.after_auth) {
      expected.push_back(e != "H" ? e
                                  : "handle " + std::to_string(era) +
                                        " prev=" + (era == 1 ? "None" : std::to_string(era - 1)));
    }
    EXPECT_EQ(events_.events(), expected);
    for (const std::string& warning : c.warnings) EXPECT_EQ(logged_starting(warning), 1u) << warning;
    // The gate, a look before each of the two files and two confirmations;
    // a third before the searches restart.
    EXPECT_EQ(api_.request_count("/era/current"), 5u + (expected.back() == "restart"));
    EXPECT_EQ(read_file(path(file)), "era " + std::to_string(era));
    EXPECT_EQ(manager_->get_manifest()->era_id, era);
    EXPECT_FALSE(path_exists(path(std::exchange(previous_file, file))));
    expect_no_run_leftovers(era);
  }
  EXPECT_EQ(deployment_->auto_update_calls, (std::vector<std::string>{"2.0", "1.0.0"}));
}

TEST_F(Transition, ANewerEraWhileStagingRestartsTheRunForIt) {
  sync_era1();
  const std::string manifest_era1 = read_file(path("manifest.json"));
  put_local("other/junk.tmp", "left by someone");
  // Sorted: keep (reused), only2 (staged), z; then the vocabulary.
  publish_era_data(2, {{"features/a/keep.bin", "same in both eras"},
                       {"features/b/only2.bin", "era two only"},
                       {"useful_signals/z.bin", "era two z"}});
  Json files3 = Json::object();
  files3["features/a/keep.bin"] = store_file("features/a/keep.bin", "same in both eras");
  files3["features/c/three.bin"] = store_file("features/c/three.bin", "era three");
  const Json m3 = with_artefacts(manifest(3, 1, files3));
  // The gate, then the looks before keep and only2 see era 2; the look
  // before z sees era 3, and so does every later one.
  api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(3)), .skip = 3});
  api_.fault("/data/manifest", Fault{.status = 200, .body = json_text(m3), .skip = 1});

  std::vector<Files> live_at_kill;
  manager_->trigger_era_transition(
      2,
      [&] {
        events_.add("kill");
        live_at_kill.push_back(live_files());
      },
      restart_fn());

  ASSERT_EQ(live_at_kill.size(), 2u);
  EXPECT_EQ(store_.request_count("/bucket/features/b/only2.bin"), 1u);  // it did reach staging
  EXPECT_EQ(store_.request_count("/bucket/useful_signals/z.bin"), 0u);
  // Swept before the second run, which found the live data of era 1; the
  // overtaken run's staging is gone at the end.
  EXPECT_FALSE(live_at_kill[1].contains("other/junk.tmp"));
  EXPECT_EQ(live_at_kill[1].at("manifest.json"), manifest_era1);

  EXPECT_FALSE(path_exists(path("features/b/only2.bin")));
  EXPECT_FALSE(path_exists(path("useful_signals/z.bin")));
  EXPECT_EQ(read_file(path("features/c/three.bin")), "era three");
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(3));
  EXPECT_EQ(read_file(path("manifest.json")), json_text(m3));
  // The second run reads the same previous era as the first.
  Events expected = told(3, "1");
  expected.insert(expected.begin(), "kill");
  EXPECT_EQ(events_.events(), expected);
  expect_no_run_leftovers(2);
  expect_no_run_leftovers(3);
}

// A refusal leaves the live data as it was; an era that moves once the
// commit is done leaves the new data in place, deletes nothing and tells
// nobody.
TEST_F(Transition, RefusalsLeaveTheLiveDataAsItWasAndAMoveAfterTheCommitStopsThere) {
  sync_era1();
  put_local("features/x/stray.bin", "stray");
  const Json m2 = publish_era_data(2, era2_files());
  const Files before = live_files();
  const std::shared_ptr<Manifest> manifest_before = manager_->get_manifest();
  const auto vocabulary_before = manager_->_vocabulary.load();

  const std::string lib = "LibraryUpdateRequired: quillmarsh >= 2.0 required for era 2";
  const std::string era_error = "EraError: ";
  // The deployment finds a newer build; its update fails as `fail` says.
  const auto update_fails = [this](std::function<void()> fail, std::optional<bool> success = std::nullopt) {
    deployment_slot().set(deployment_);
    deployment_->newer_version = "1.5.0";
    deployment_->update_result = UpdateResult{success, std::nullopt};
    deployment_->auto_update_throws = std::move(fail);
    answer_era(flat_era(2, "active", "2.0"));
  };
  struct Case {
    const char* name;
    std::function<void()> arrange;
    std::string failure;
    bool committed = false;
  };
  const std::vector<Case> cases = {
      {"update answers failure without a warning", [&] { update_fails(nullptr, false); },
       lib + "; auto-update failed: Could not auto-update to latest." + kWheelAdvice},
      {"update fails outright", [&] { update_fails([] { throw RuntimeError("pip exploded"); }); },
       lib + "; auto-update failed: pip exploded" + kWheelAdvice},
      {"closing on a real advance", [this] { answer_era(flat_era(2, "closing")); },
       era_error + "Active era confirmation for era_id=2 returned state='closing'"},
      // No default state.
      {"no state", [this] { answer_era(flat_era(2, std::nullopt)); },
       era_error + "Active era confirmation for era_id=2 returned state=None"},
      {"between eras", [this] { answer_era(wrapped_era(nullptr, Json("between_eras"))); },
       era_error + "Failed to parse active era response during transition"},
      {"manifest of another era", [this] { api_.put("/data/manifest", json_text(manifest(3, 1))); },
       era_error + "Era transition manifest era_id=3 does not match active era_id=2"},
      {"manifest unavailable", [this] { api_.fault("/data/manifest", Fault{.status = 500, .body = "down"}); },
       "SyncError: Failed to fetch era 2 manifest: HTTP 500"},
      // The gate sees era 2, the first look before a download an older one.
      {"an older era while staging",
       [this] {
         api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(1)), .times = 1, .skip = 1});
       },
       era_error + "Active era_id=1 does not match requested transition era_id=2"},
      // The gate and the five looks see era 2; the confirmation before the
      // first rename, once change.bin is staged, sees era 3.
      {"era moves just before the commit",
       [this] { api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(3)), .skip = 6}); },
       era_error + "Active era_id=3 does not match requested transition era_id=2"},
      // The gate, five looks and the confirmation before the renames see
      // era 2; the one after the manifest swap sees era 3.
      {"era moves right after the commit",
       [this] { api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(3)), .skip = 7}); },
       era_error + "Active era_id=3 does not match requested transition era_id=2", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // Era 2 as published, unless the case says otherwise.
    deployment_slot().set(std::make_shared<DefaultDeployment>());
    api_.clear_faults();
    api_.put("/data/manifest", json_text(m2));
    answer_era(flat_era(2));
    events_.clear();
    c.arrange();
    EXPECT_EQ(outcome([&] { transition(2); }), c.failure);
    if (c.committed) {
      EXPECT_EQ(read_file(path("manifest.json")), json_text(m2));
      EXPECT_EQ(manager_->get_manifest()->era_id, 2);
      EXPECT_TRUE(path_exists(path("named_universes/gone.json")) && path_exists(path("features/x/stray.bin")));
    } else {
      EXPECT_EQ(live_files(), before);
      EXPECT_EQ(manager_->get_manifest(), manifest_before);
      EXPECT_EQ(manager_->_vocabulary.load(), vocabulary_before);  // staged, never loaded
    }
    EXPECT_EQ(events_.events(), Events{"kill"});  // searches stay killed
    expect_no_run_leftovers(2);
  }
  EXPECT_EQ(deployment_->auto_update_calls, (std::vector<std::string>{"2.0", "2.0"}));
}

// A file whose download fails once waits 1s and comes in; the next, whose
// bytes never come right, starts its own count and holds the run until the
// era moves.
TEST_F(Transition, BytesThatStayWrongHoldTheRunUntilTheEraMovesAndEachFileCountsItsRetriesAfresh) {
  sync_era1();
  // Sorted: flaky, bad, then the vocabulary.
  publish_era_data(2, {{"features/a/a_flaky.bin", "cut through one whole download"},
                       {"features/a/bad.bin", "bytes that never arrive intact"}});
  store_.fault("/bucket/features/a/a_flaky.bin", Fault{.cut_after_bytes = 1, .times = 3});
  store_.fault("/bucket/features/a/bad.bin", Fault{.wrong_bytes = true});
  // The gate, the look before flaky and the one after its failure, the look
  // before bad.bin and eight after its failures see era 2; the ninth look
  // after a failure finds no era.
  api_.fault("/era/current", Fault{.status = 200, .body = json_text(wrapped_era(nullptr)), .skip = 12});
  const Files before = live_files();

  // Each retry wait of the run, with the status shown during it.
  replace_sleep([this](double s) { retry_waits_.emplace_back(s, manager_->status()); });
  EXPECT_EQ(outcome([&] { transition(2); }), "EraError: Failed to parse active era response during transition");

  std::vector<double> transition_waits;
  for (const auto& [s, status] : retry_waits_) {
    // The download's own waits show at least 1s as well; flaky is complete
    // once its transition wait is over.
    const auto shown = std::to_string(std::max<std::int64_t>(1, static_cast<std::int64_t>(s)));
    const std::string complete = transition_waits.empty() ? "0" : "1";
    EXPECT_EQ(status, "Download interrupted, retrying in " + shown + "s (" + complete + "/3 files complete)") << s;
    if (s >= 1.0) transition_waits.push_back(s);
  }
  EXPECT_EQ(transition_waits, (std::vector<double>{1, 1, 2, 4, 8, 16, 32, 60, 60}));
  EXPECT_EQ(live_files(), before);
  expect_no_run_leftovers(2);
}

}  // namespace
}  // namespace quillmarsh::sync
