// SyncFixture plus what era tests need: /era/current in either shape, the
// host modules a transition reaches (scripted, recording what they are told)
// and a picture of the live directory to compare before and after.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_ERA_FIXTURE_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_ERA_FIXTURE_H_

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/collaborators/auth.h"
#include "sync/collaborators/deployment.h"
#include "sync/collaborators/identity.h"
#include "sync/collaborators/search_tracking.h"
#include "sync/support/file_tree.h"
#include "tests/support/sync_fixture.h"

namespace quillmarsh::sync::testing {

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

// Resolves every directory to `owner`, or fails.
class ScriptedIdentityModule : public IdentityModule {
 public:
  bool fail = false;
  const std::shared_ptr<Identity> owner = std::make_shared<Identity>();
  std::shared_ptr<Identity> resolve_identity_for_data_dir(const std::string&) override {
    if (fail) throw RuntimeError("no identity file");
    return owner;
  }
};

class RecordingAuth : public Auth {
 public:
  explicit RecordingAuth(EventLog& log) : log_(log) {}
  bool fail = false;
  void notify_era_change(std::int64_t new_era_id) override {
    log_.add("auth " + std::to_string(new_era_id));
    if (fail) throw AuthError("token store locked");
  }

 private:
  EventLog& log_;
};

// Logs "open identity=owner|<other>|null|absent", "handle N prev=P|None",
// "close"; every tracker it opens is itself.
class RecordingSearchTracking : public SearchTracking,
                                public SearchTracker,
                                public std::enable_shared_from_this<RecordingSearchTracking> {
 public:
  RecordingSearchTracking(EventLog& log, std::shared_ptr<Identity> owner) : log_(log), owner_(std::move(owner)) {}
  bool fail_with_identity = false;  // a construction that passes the keyword fails
  bool fail_always = false;
  bool fail_handle = false;

  std::shared_ptr<SearchTracker> open_tracker(const std::string&,
                                              std::optional<std::shared_ptr<Identity>> identity) override {
    log_.add("open identity=" +
             std::string(!identity ? "absent" : !*identity ? "null" : *identity == owner_ ? "owner" : "<other>"));
    if (fail_always || (fail_with_identity && identity)) throw RuntimeError("tracker database locked");
    return shared_from_this();
  }
  void handle_era_transition(std::int64_t new_era_id, std::optional<std::int64_t> previous_era_id) override {
    log_.add("handle " + std::to_string(new_era_id) +
             " prev=" + (previous_era_id ? std::to_string(*previous_era_id) : std::string("None")));
    if (fail_handle) throw RuntimeError("search table busy");
  }
  void close() override { log_.add("close"); }

 private:
  EventLog& log_;
  std::shared_ptr<Identity> owner_;
};

class EraFixture : public SyncFixture {
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
  Json publish_era_data(std::int64_t era, const std::map<std::string, std::string>& files) {
    Json entries = Json::object();
    for (const auto& [file_path, bytes] : files) entries[file_path] = store_file(file_path, bytes);
    const Json m = with_artefacts(manifest(era, 1, std::move(entries)));
    publish(m);
    answer_era(flat_era(era));
    return m;
  }

  // A manager whose data directory is synced to era `era` holding `files`,
  // with that era active; the servers' records start empty.
  std::shared_ptr<SyncManager> synced_manager(std::int64_t era, const std::map<std::string, std::string>& files) {
    publish_era_data(era, files);
    auto manager = make_manager();
    manager->sync();
    api_.clear_requests();
    store_.clear_requests();
    return manager;
  }

  // The callbacks a monitor hands the transition, logging into events_.
  std::function<void()> kill_fn() { return [this] { events_.add("kill"); }; }
  std::function<void()> restart_fn() { return [this] { events_.add("restart"); }; }

  // Every file below the data directory, dot-directories included, with its bytes.
  std::map<std::string, std::string> live_files() const {
    std::map<std::string, std::string> out;
    for (const std::string& rel : walk_files(dir_.path(), [](std::string_view) { return true; })) {
      out[rel] = read_file(path(rel));
    }
    return out;
  }

  // No run left its marks behind (a directory in the lock file's place is a
  // test's, to make the file unwritable).
  void expect_no_run_leftovers(const SyncManager& manager, std::int64_t staged_era) const {
    EXPECT_FALSE(path_exists(path(".transition_lock")) && !is_directory(path(".transition_lock")));
    EXPECT_FALSE(path_exists(path(".transition_era" + std::to_string(staged_era) + ".tmp")));
    EXPECT_FALSE(manager._in_transition.load());
    EXPECT_FALSE(manager.status().has_value());
  }

  EventLog events_;
  std::shared_ptr<ScriptedDeployment> deployment_ = std::make_shared<ScriptedDeployment>();
  std::shared_ptr<ScriptedIdentityModule> identity_ = std::make_shared<ScriptedIdentityModule>();
  std::shared_ptr<RecordingAuth> auth_ = std::make_shared<RecordingAuth>(events_);
  std::shared_ptr<RecordingSearchTracking> tracking_ =
      std::make_shared<RecordingSearchTracking>(events_, identity_->owner);

 private:
  // The library's default deployment unless a test scripts one.
  InSlot<Deployment> deployment_in_slot_{deployment_slot(), deployment_slot().get()};
  InSlot<IdentityModule> identity_in_slot_{identity_slot(), identity_};
  InSlot<Auth> auth_in_slot_{auth_slot(), auth_};
  InSlot<SearchTracking> tracking_in_slot_{search_tracking_slot(), tracking_};
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_ERA_FIXTURE_H_
