// Managers shared and coordinated: the registry (one manager per real
// directory, the threads that the first consumer starts and the last one
// stops, the count on disk, the monitor that acquire starts);
// request_for_sync and its sharing of one pass, the found-file listing it
// returns and the era callbacks; and old-era cleanup (which directories go
// and what they count, the links it must never follow, the failure of its
// background run).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "sync/era/era_thread.h"
#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/sync_manager.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync {
namespace {

using Paths = std::vector<std::string>;
using testing::EventLog;
using testing::Fault;
using testing::SyncFixture;
using testing::outcome;
using testing::wait_until;

SyncManager::TokenSource token(std::string text) { return [text] { return text; }; }

// One fixture for the registry, coordination and clean-up tests.
class Service : public SyncFixture {
 protected:
  std::shared_ptr<SyncManager> shared(const std::string& data_dir, SyncManager::TokenSource get_token = token("t"),
                                      double poll_interval_s = 600.0) {
    return SyncManager::get_or_create(data_dir, api_.base_url(), std::move(get_token), poll_interval_s);
  }
  std::string count_file() const { return read_file(path(".consumer_count")); }
  std::optional<std::string> last_authorization(const std::string& request_path) const {
    std::optional<std::string> seen;
    for (const auto& r : api_.requests()) if (r.path == request_path) seen = r.header("Authorization");
    return seen;
  }
  // A manifest in force on the server, so that background polls find
  // nothing to do and log nothing.
  void quiet_server() {
    publish(with_artefacts(manifest(1, 1)));
    api_.put("/era/current", "{\"era_id\": 1, \"state\": \"active\"}");
  }
  static void set_manifest_era(SyncManager& m, Json era_id) {
    m._manifest.store(std::make_shared<Manifest>(Json{{"era_id", std::move(era_id)}, {"files", Json::object()}}));
  }
  std::string local(const std::string& rel) const { return _manifest_local_path(dir_.path(), rel); }
  std::string outside(const std::string& relative) const { return outside_ / relative; }
  bool present(const std::string& relative) const { return path_exists(path(relative)); }
  // Writes `size` bytes at `full_path`, making its parents.
  void put(const std::string& full_path, std::size_t size) {
    make_dirs(dir_name(full_path));
    write_file(full_path, std::string(size, 'q'));
  }
  // Links data directory paths to paths outside it.
  void link(std::initializer_list<std::pair<const char*, const char*>> target_and_relative) {
    for (const auto& [target, relative] : target_and_relative) {
      make_dirs(dir_name(path(relative)));
      ASSERT_EQ(::symlink(outside(target).c_str(), path(relative).c_str()), 0) << relative;
    }
  }

  testing::TempDir outside_;
};
using Registry = Service;
using Coordination = Service;
using Cleanup = Service;

TEST_F(Registry, OneInstancePerRealDirectoryWhileHeldWithTheNewestToken) {
  // An instance nobody holds leaves nothing registered: the server below
  // would otherwise be refused.
  const std::string elsewhere = "https://127.0.0.1:9";
  std::weak_ptr<SyncManager> dropped = SyncManager::get_or_create(dir_.path(), elsewhere, token("t"));
  EXPECT_TRUE(dropped.expired());

  auto first = shared(dir_.path(), token("first"), 600.0);
  EXPECT_EQ(shared(dir_.path() + "/.", token("second"), 5.0), first);
  publish(manifest(1, 1));
  first->needs_sync();
  EXPECT_EQ(last_authorization("/data/manifest/version"), "Bearer second");
  EXPECT_EQ(outcome([&] { SyncManager::get_or_create(dir_.path(), elsewhere, token("third")); }),
            "ValueError: SyncManager for '" + std::filesystem::canonical(dir_.path()).string() +
                "' already exists with server_url='" + api_.base_url() + "', cannot reuse with server_url='" +
                elsewhere + "'");
}

TEST_F(Registry, FirstAcquireStartsTheThreadsAndLastReleaseStopsAndEvictsWhateverCountItFound) {
  quiet_server();
  auto m = shared(dir_.path(), token("first"));
  m->acquire();
  EXPECT_EQ(count_file(), "1");
  const auto poll_thread = m->_sync_thread.load();
  const auto monitor = m->_era_thread.load();
  ASSERT_NE(poll_thread, nullptr);
  ASSERT_NE(monitor, nullptr);
  ASSERT_TRUE(wait_until([&] { return api_.request_count("/era/current") == 1; }));
  EXPECT_EQ(last_authorization("/era/current"), "Bearer first");

  m->acquire();
  m->release();
  EXPECT_EQ(count_file(), "1");
  EXPECT_TRUE(monitor->is_alive());
  m->release();
  EXPECT_EQ(count_file(), "0");
  EXPECT_FALSE(poll_thread->is_alive());
  EXPECT_FALSE(monitor->is_alive());
  EXPECT_EQ(api_.request_count("/era/current"), 1u);  // one poll at start, none after

  auto fresh = shared(dir_.path());
  EXPECT_NE(fresh, m);

  // An unbalanced release writes nothing, stops nothing and evicts nothing.
  remove_file(path(".consumer_count"));
  m->release();
  fresh->release();
  EXPECT_FALSE(path_exists(path(".consumer_count")));
  EXPECT_EQ(shared(dir_.path()), fresh);

  // A count left by an earlier process is taken over as it stands, and the
  // threads decide, not the count: the first consumer here starts them.
  SyncManager::_evict(dir_.path());
  write_file(path(".consumer_count"), "5");
  m = shared(dir_.path());
  EXPECT_EQ(m->consumer_count(), 5);
  m->acquire();
  EXPECT_EQ(count_file(), "6");
  EXPECT_NE(m->_era_thread.load(), nullptr);

  // Not the last release by the count: the threads run on, and the manager
  // stays registered.
  m->release();
  EXPECT_EQ(count_file(), "5");
  EXPECT_TRUE(m->is_alive());
  EXPECT_EQ(shared(dir_.path()), m);
  m->stop();
  SyncManager::_evict(dir_.path());
}

const std::string kInTransition = "StateError: Sync is in era transition mode \xE2\x80\x94 request_for_sync rejected";

// request_for_sync is refused outside a polling manager, the transition test
// first. A request made while another's pass is under way joins that pass
// and gets the list as it stands after it; only the pass's own caller sees it
// fail.
TEST_F(Coordination, RequestForSyncIsRefusedOutsideAPollingManagerAndConcurrentRequestsShareOnePass) {
  auto idle = make_manager();
  EXPECT_EQ(outcome([&] { idle->request_for_sync(); }),
            "StateError: Sync thread is not running. Call start() or acquire() first.");
  write_file(path(".transition_lock"), "4242");
  EXPECT_EQ(outcome([&] { idle->request_for_sync(); }), kInTransition);
  remove_file(path(".transition_lock"));

  const std::string rel = "found_signals/a/b/c/pnl.arrow";
  Json files = Json::object();
  put_local(rel, "signal");
  files[rel] = testing::entry_of("signal");
  files[rel]["kind"] = "found_signal_is_pnl";
  // Version 1 in force, and a version document that names it and no era:
  // polls never find work, while every pass still fetches version 2.
  Json in_force = manifest(1, 1);
  write_local_artefacts(in_force["files"], 1);
  _write_manifest_json(dir_.path(), in_force);
  publish(with_artefacts(manifest(1, 2, files)), Json{{"version", 1}});
  auto m = make_manager();
  m->start();
  m->_in_transition = true;
  EXPECT_EQ(outcome([&] { m->request_for_sync(); }), kInTransition);
  m->_in_transition = false;
  for (const bool fail : {true, false}) {
    SCOPED_TRACE(fail ? "failing pass" : "completing pass");
    Fault slow{.delay_before_head_s = 0.5, .times = 1};
    if (fail) slow.status = 500;
    api_.fault("/data/manifest", slow);
    const std::size_t requests_before = api_.request_count("/data/manifest");
    Paths first;
    std::string first_outcome;
    std::jthread caller([&] { first_outcome = outcome([&] { first = m->request_for_sync(); }); });
    ASSERT_TRUE(wait_until([&] { return api_.request_count("/data/manifest") == requests_before + 1; }));
    const Paths second = m->request_for_sync();
    caller.join();
    EXPECT_EQ(first_outcome, fail ? "SyncError: Failed to fetch manifest: HTTP 500" : "ok");
    EXPECT_EQ(first, fail ? Paths{} : Paths{local(rel)});
    EXPECT_EQ(second, fail ? Paths{} : Paths{local(rel)});
    // Nothing of a pass is left to wait on: the next call runs its own.
    EXPECT_EQ(api_.request_count("/data/manifest"), requests_before + 1);
  }
  m->stop();
}

TEST_F(Coordination, FoundFilePathsAreNewestFirstAndOnDiskOnly) {
  EXPECT_TRUE(make_manager()->_get_found_file_paths().empty());  // no manifest

  // Manifest path, kind ("": none) and mtime in seconds (0: not on disk).
  const std::tuple<const char*, const char*, std::int64_t> entries[] = {
      {"found_signals/a/b/c/pnl.arrow", "found_signal_is_pnl", 100},
      {"found_strategies/s/t/u/pnl.arrow", "found_strategy_is_pnl", 300},
      {"found_signals/d/e/f/pnl.arrow", "found_signal_is_pnl", 200},
      {"found_signals/x/y/z/pnl.arrow", "found_signal_is_pnl", 0},
      {"found_signals/j/k/l/meta.json", "", 900},
  };
  Json files = Json::object();
  for (const auto& [rel, kind, mtime_s] : entries) {
    files[rel] = {{"sha256", "00"}};
    if (*kind) files[rel]["kind"] = kind;
    if (!mtime_s) continue;
    put_local(rel, "x");
    const timespec times[2] = {{mtime_s, 0}, {mtime_s, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(rel).c_str(), times, 0), 0);
  }
  _write_manifest_json(dir_.path(), manifest(1, 1, files));
  EXPECT_EQ(make_manager()->_get_found_file_paths(),
            (Paths{local("found_strategies/s/t/u/pnl.arrow"), local("found_signals/d/e/f/pnl.arrow"),
                   local("found_signals/a/b/c/pnl.arrow")}));
}

// The listeners hear the manifest's era as an integer where it has one,
// else 0, so that no manifest keeps them from being told. A callback may
// change the list while it is being called, from the next notification on.
// A failing one is the Python suite's (a warning, and the rest are still
// called).
TEST_F(Coordination, EraCallbacksHearTheEraAsAnIntegerAndMayChangeTheListForTheNextNotification) {
  auto m = make_manager();
  EventLog calls;
  const auto a = calls.callback("a");
  const auto late = calls.callback("late");
  SyncManager::EraCallback self;
  self = std::make_shared<const SyncManager::EraCallbackFn>([&](const std::string& event, std::int64_t era) {
    calls.add("self:" + event + ":" + std::to_string(era));
    m->unregister_era_callback(self);
    m->register_era_callback(late);
  });
  m->register_era_callback(self);
  m->register_era_callback(a);
  set_manifest_era(*m, "7");
  m->_kill_fn();
  EXPECT_EQ(calls.events(), (Paths{"self:kill:7", "a:kill:7"}));
  calls.clear();
  set_manifest_era(*m, Json::array({1}));
  m->_restart_fn();
  EXPECT_EQ(calls.events(), (Paths{"a:restart:0", "late:restart:0"}));
}

// Other spellings of the current era are the current era too, and only
// direct child directories with an era name are era directories; without a
// usable current era every era directory goes. A second run finds nothing
// left to free.
TEST_F(Cleanup, KeepCurrentSparesTheManifestsEraAndCountsTheRest) {
  const std::string manifest_text = "{\"era_id\": 2, \"version\": 1, \"files\": {}}";
  write_file(path("manifest.json"), manifest_text);
  auto m = make_manager();
  ASSERT_NE(m->get_manifest(), nullptr);
  const struct {
    const char* rel;
    std::size_t size;
    bool in_old_era, in_current_era;
  } files[] = {{"era_1/a.bin", 10, true, false},   {"era_1/sub/deeper/b.bin", 25, true, false},
               {"era3/c.bin", 7, true, false},     {"era_2/d.bin", 100, false, true},
               {"era_02/e.bin", 1, false, true},   {"era2/f.bin", 1, false, true},
               {"eras/keep.bin", 4, false, false}, {"features/u/vocabulary.json", 9, false, false},
               {"era_4", 6, false, false},         {"features/era_1/keep.bin", 4, false, false}};
  for (const Json& era_id :
       {Json("as read from disk"), Json("no manifest"), Json(nullptr), Json("two"), Json::array({2}), Json(1e30)}) {
    SCOPED_TRACE(era_id.dump());
    if (era_id == "no manifest") m->_manifest.store(nullptr);
    if (era_id != "as read from disk" && era_id != "no manifest") set_manifest_era(*m, era_id);
    const bool usable = era_id == "as read from disk";
    for (const auto& f : files) put(path(f.rel), f.size);
    make_dirs(path("era_1/empty"));
    EXPECT_EQ(m->cleanup_old_eras(), usable ? 42 : 144);
    EXPECT_FALSE(present("era_1") || present("era3"));
    for (const auto& f : files) EXPECT_EQ(present(f.rel), !f.in_old_era && (usable || !f.in_current_era)) << f.rel;
  }
  EXPECT_EQ(read_file(path("manifest.json")), manifest_text);
}

TEST_F(Cleanup, LinksAndTheCurrentDataGoButLinkTargetsAndHiddenStateStay) {
  const std::pair<const char*, std::int64_t> targets[] = {{"tree/big.bin", 1000}, {"file.bin", 33}, {"seed", 60},
                                                          {"manifest", 12}};
  for (const auto& [rel, size] : targets) put(outside(rel), size);
  auto m = make_manager();
  set_manifest_era(*m, 2);

  // Inside an era directory: a link to a file counts by its target; a link
  // to a directory is not entered; a dangling link counts nothing.
  put(path("era_1/real.bin"), 5);
  // A linked era directory: the link goes, its target is not entered; the
  // current era's stays.
  link({{"tree", "era_1/tree"}, {"file.bin", "era_1/deep/file.bin"}, {"missing", "era_1/dangling"}, {"tree", "era_7"},
        {"tree", "era_2"}});
  EXPECT_EQ(m->cleanup_old_eras(true), 5 + 33);
  EXPECT_FALSE(present("era_1") || present("era_7"));
  EXPECT_TRUE(present("era_2"));

  // Without keep_current the current data goes, top-level links with it but
  // never their targets; hidden state and files of no data folder stay.
  link({{"tree", "linked"}, {"tree", "features/inner"}, {"tree", ".hidden_link"}, {"manifest", "manifest.json"},
        {"seed", "shuffle_seed.enc"}});
  put(path("features/own.bin"), 4);
  put(path("found_signals/a/b/signal_is/s.bin"), 4000);
  make_dirs(path("empty"));
  const char* kept[] = {"shuffle_seed.enc.meta.json", ".consumer_count", ".transition_era3.tmp/x.bin", "notes.txt",
                        "era_9"};  // the last a file, not a directory
  for (const char* rel : kept) put(path(rel), 1);
  EXPECT_EQ(m->cleanup_old_eras(false), 12 + 60 + 4 + 4000);
  for (const char* gone :
       {"linked", "features", "found_signals", "empty", "manifest.json", "shuffle_seed.enc", "era_2"}) {
    EXPECT_FALSE(present(gone)) << gone;
  }
  for (const char* rel : kept) EXPECT_TRUE(present(rel)) << rel;
  EXPECT_TRUE(present(".hidden_link"));

  for (const auto& [rel, size] : targets) EXPECT_EQ(stat_path(outside(rel)).size, size) << rel;
}

}  // namespace
}  // namespace quillmarsh::sync
