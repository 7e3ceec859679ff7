#include <gtest/gtest.h>

#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/era_fixture.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::Fault;
using testing::outcome;
using testing::seed_bytes;
using Files = std::map<std::string, std::string>;
using Events = std::vector<std::string>;
using Waits = std::vector<std::pair<double, std::optional<std::string>>>;

const std::string kWheelAdvice =
    ". Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/quillmarsh-*.whl";

class Transition : public EraFixture {
 protected:
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

  // A data directory synced to era 1, with era 1 active.
  void sync_era1() { manager_ = synced_manager(1, era1_files()); }

  void transition(std::int64_t era, bool with_restart = true) {
    manager_->trigger_era_transition(era, kill_fn(), with_restart ? restart_fn() : nullptr);
  }
  // Events of a run that reached the host's modules: kill, auth, tracker, restart.
  static Events told(std::int64_t era, const std::string& prev, bool with_restart = true) {
    Events e = {"kill", "auth " + std::to_string(era), "open identity=owner",
                "handle " + std::to_string(era) + " prev=" + prev, "close"};
    if (with_restart) e.push_back("restart");
    return e;
  }
  // Records each retry wait of a run with the status shown during it.
  void record_waits(double at_least = 0) {
    replace_sleep([this, at_least](double s) {
      if (s >= at_least) waits_.emplace_back(s, manager_->status());
    });
  }

  std::size_t era_requests() const { return api_.request_count("/era/current"); }

  std::shared_ptr<SyncManager> manager_;
  Waits waits_;
};

TEST_F(Transition, TheSameEraWhileClosingTellsNobodyAndTheNextEraFetchesOnlyWhatChanged) {
  sync_era1();
  const Files synced = live_files();
  publish_era(1, "closing");
  transition(1);
  EXPECT_EQ(events_.events(), (Events{"kill", "restart"}));
  for (const auto& [rel, bytes] : era1_files()) EXPECT_EQ(store_.request_count("/bucket/" + rel), 0u) << rel;
  EXPECT_EQ(live_files(), synced);
  expect_no_run_leftovers(*manager_, 1);
  events_.clear();
  api_.clear_requests();
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
  const FileStat keep_before = stat_path(path("features/a/keep.bin"));

  Files era2 = era2_files();
  era2.erase("extras/era1_only.txt");  // only the old manifest names it
  era2["useful_signals/new.bin"] = "fresh";
  era2["features/a/decl.pxd"] = "a declaration a sync pass would drop";
  const Json m2 = publish_era_data(2, era2);
  // Either shape passes every gate, a textual era id too.
  answer_era(wrapped_era(Json{{"era_id", "2"}}, Json("active")));
  // A dead run's staging of this era is not trusted; a stale lock file's
  // content is replaced.
  put_local(".transition_era2.tmp/features/a/change.bin.tmp", "junk");
  write_file(path(".transition_lock"), "123456789 from a crashed process");

  std::optional<std::string> lock_at_kill;
  bool in_transition_at_kill = false;
  manager_->trigger_era_transition(
      2,
      [&] {
        events_.add("kill");
        lock_at_kill = read_file(path(".transition_lock"));
        in_transition_at_kill = manager_->_in_transition.load();
      },
      restart_fn());
  EXPECT_EQ(lock_at_kill, std::to_string(::getpid()));
  EXPECT_TRUE(in_transition_at_kill);

  for (const char* fetched : {"features/a/change.bin", "useful_signals/new.bin", "features/a/decl.pxd",
                              "features/u/vocabulary.json"}) {
    EXPECT_EQ(store_.request_count("/bucket/" + std::string(fetched)), 1u) << fetched;
  }
  EXPECT_EQ(store_.requests().size(), 4u);
  EXPECT_EQ(api_.request_count("/data/manifest"), 1u);
  EXPECT_EQ(api_.request_count("/data/shuffle"), 1u);
  // One look before each of the six taken entries, reused ones included,
  // and the gate and two confirmations.
  EXPECT_EQ(era_requests(), 1u + 6u + 3u);

  const FileStat keep_after = stat_path(path("features/a/keep.bin"));
  EXPECT_EQ(keep_after.inode, keep_before.inode);
  EXPECT_EQ(keep_after.mtime_ns, keep_before.mtime_ns);

  for (const auto& [rel, bytes] : era2) EXPECT_EQ(read_file(path(rel)), bytes) << rel;
  for (const auto& [rel, bytes] : kept_extras) EXPECT_EQ(read_file(path(rel)), bytes) << rel;
  for (const std::string& gone : strays) EXPECT_FALSE(path_exists(path(gone))) << gone;
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
  expect_no_run_leftovers(*manager_, 2);
  EXPECT_EQ(events_.events(), told(2, "1"));
}

TEST_F(Transition, AFirstEraMovesInWithNoPreviousEra) {
  const Json m1 = publish_era_data(1, era1_files());
  put_local("features/old/stray.bin", "stray");
  manager_ = make_manager();
  ASSERT_FALSE(manager_->get_manifest());
  transition(1, false);
  EXPECT_EQ(read_file(path("manifest.json")), json_text(m1));
  for (const auto& [rel, bytes] : era1_files()) EXPECT_EQ(read_file(path(rel)), bytes) << rel;
  EXPECT_FALSE(path_exists(path("features/old/stray.bin")));
  EXPECT_EQ(events_.events(), told(1, "None", false));
  // No restart callback: no confirmation after the reload.
  EXPECT_EQ(era_requests(), 1u + (era1_files().size() + 1) + 2u);
  expect_no_run_leftovers(*manager_, 1);
}

// Whatever the host's modules do wrong comes after the commit: the new era
// is in place, and only a tracker's failure reaches the caller.
TEST_F(Transition, TheHostsModulesAreToldWhateverFailsAmongThem) {
  sync_era1();
  struct Case {
    std::function<void()> arrange;
    Events after_auth;  // "H" stands for the tracker's handling of the era
    std::string failure = "ok";
  };
  const std::vector<Case> cases = {
      {[this] { identity_->fail = true; }, {"open identity=null", "H", "close", "restart"}},
      {[this] { tracking_->fail_with_identity = true; },
       {"open identity=owner", "open identity=absent", "H", "close", "restart"}},
      {[this] { auth_->fail = true; }, {"open identity=owner", "H", "close", "restart"}},
      {[this] { tracking_->fail_handle = true; }, {"open identity=owner", "H", "close"},
       "RuntimeError: search table busy"},
      {[this] { tracking_->fail_always = true; }, {"open identity=owner", "open identity=absent"},
       "RuntimeError: tracker database locked"},
  };
  std::int64_t era = 1;
  std::string previous_file = "features/a/keep.bin";
  for (const Case& c : cases) {
    SCOPED_TRACE("era " + std::to_string(++era));
    const std::string file = "features/a/x" + std::to_string(era) + ".bin";
    identity_->fail = auth_->fail = false;
    tracking_->fail_with_identity = tracking_->fail_handle = tracking_->fail_always = false;
    c.arrange();
    const Json m = publish_era_data(era, {{file, "era " + std::to_string(era)}});
    events_.clear();
    EXPECT_EQ(outcome([&] { transition(era); }), c.failure);
    Events expected = {"kill", "auth " + std::to_string(era)};
    for (const std::string& e : c.after_auth) {
      expected.push_back(e == "H" ? "handle " + std::to_string(era) + " prev=" + std::to_string(era - 1) : e);
    }
    EXPECT_EQ(events_.events(), expected);
    EXPECT_EQ(read_file(path("manifest.json")), json_text(m));
    EXPECT_EQ(manager_->get_manifest()->era_id, era);
    EXPECT_FALSE(path_exists(path(std::exchange(previous_file, file))));
    expect_no_run_leftovers(*manager_, era);
  }
  EXPECT_EQ(log_.count(LogLevel::warning, "Failed to notify auth about era change: token store locked"), 1u);
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
  for (const Files& snapshot : live_at_kill) {
    for (const auto& [rel, bytes] : snapshot) {
      EXPECT_FALSE(rel == "features/b/only2.bin" || rel.starts_with(".transition_era2.tmp")) << rel;
    }
  }
  EXPECT_FALSE(live_at_kill[1].contains("other/junk.tmp"));  // swept before the second run
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
  expect_no_run_leftovers(*manager_, 2);
  expect_no_run_leftovers(*manager_, 3);
}

TEST_F(Transition, RefusalsLeaveTheLiveDataAsItWas) {
  sync_era1();
  const Json m2 = publish_era_data(2, era2_files());
  const Files before = live_files();
  const std::shared_ptr<Manifest> manifest_before = manager_->get_manifest();
  const auto vocabulary_before = manager_->_vocabulary.load();

  const std::string lib = "LibraryUpdateRequired: quillmarsh >= 2.0 required for era 2";
  const std::string era_error = "EraError: ";
  // The deployment finds a newer build; its update fails as `fail` says.
  const auto update_fails = [this](std::function<void()> fail, std::optional<bool> success = std::nullopt) {
    use_scripted_deployment();
    deployment_->newer_version = "1.5.0";
    deployment_->update_result = UpdateResult{success, std::nullopt};
    deployment_->auto_update_throws = std::move(fail);
    publish_era(2, "active", "2.0");
  };
  struct Case {
    const char* name;
    std::function<void()> arrange;
    std::string failure;
  };
  const std::vector<Case> cases = {
      {"update answers failure without a warning", [&] { update_fails(nullptr, false); },
       lib + "; auto-update failed: Could not auto-update to latest." + kWheelAdvice},
      {"update fails outright", [&] { update_fails([] { throw RuntimeError("pip exploded"); }); },
       lib + "; auto-update failed: pip exploded" + kWheelAdvice},
      {"the module's own LibraryUpdateRequired passes untouched",
       [&] { update_fails([] { throw LibraryUpdateRequired("restart the kernel"); }); },
       "LibraryUpdateRequired: restart the kernel"},
      {"closing on a real advance", [this] { publish_era(2, "closing"); },
       era_error + "Active era confirmation for era_id=2 returned state='closing'"},
      // No default state, whatever shape leaves it out or null.
      {"no state", [this] { publish_era(2, std::nullopt); },
       era_error + "Active era confirmation for era_id=2 returned state=None"},
      {"a null state inside an active wrapper",
       [this] { answer_era(wrapped_era(Json{{"era_id", 2}, {"state", nullptr}}, Json("active"))); },
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
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    // Era 2 as published, unless the case says otherwise.
    deployment_slot().set(std::make_shared<DefaultDeployment>());
    api_.clear_faults();
    api_.put("/data/manifest", json_text(m2));
    publish_era(2);
    events_.clear();
    c.arrange();
    EXPECT_EQ(outcome([&] { transition(2); }), c.failure);
    EXPECT_EQ(live_files(), before);
    EXPECT_EQ(manager_->get_manifest(), manifest_before);
    EXPECT_EQ(manager_->_vocabulary.load(), vocabulary_before);  // staged, never loaded
    EXPECT_EQ(events_.events(), Events{"kill"});  // searches stay killed
    expect_no_run_leftovers(*manager_, 2);
  }
  EXPECT_EQ(deployment_->auto_update_calls, (std::vector<std::string>{"2.0", "2.0", "2.0"}));
}

TEST_F(Transition, AnEraThatMovesRightAfterTheCommitKeepsTheNewDataAndStopsThere) {
  sync_era1();
  put_local("features/x/stray.bin", "stray");
  const Json m2 = publish_era_data(2, era2_files());
  // The gate, five looks and the confirmation before the renames see era 2;
  // the one after the manifest swap sees era 3.
  api_.fault("/era/current", Fault{.status = 200, .body = json_text(flat_era(3)), .skip = 7});
  EXPECT_EQ(outcome([&] { transition(2); }), "EraError: Active era_id=3 does not match requested transition era_id=2");
  EXPECT_EQ(read_file(path("manifest.json")), json_text(m2));
  EXPECT_EQ(read_file(path("features/a/change.bin")), "era two bytes");
  EXPECT_EQ(manager_->get_manifest()->era_id, 2);
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(2));
  // Nothing is deleted and nobody is told.
  EXPECT_TRUE(path_exists(path("named_universes/gone.json")));
  EXPECT_TRUE(path_exists(path("features/x/stray.bin")));
  EXPECT_EQ(events_.events(), Events{"kill"});
  expect_no_run_leftovers(*manager_, 2);
}

TEST_F(Transition, TheLibraryGateAndAnUnwritableLockFileLetTheRunOn) {
  sync_era1();
  use_scripted_deployment();
  // Below the minimum, and the update answers without a success flag: done.
  // A lock file that cannot be written is only a warning.
  deployment_->newer_version = "2.1.0";
  make_dirs(path(".transition_lock"));
  publish_era_data(2, {{"features/a/x.bin", "two"}});
  publish_era(2, "active", "2.0");
  transition(2);
  EXPECT_EQ(logged_starting("Failed to write transition lock file: "), 1u);
  EXPECT_EQ(read_file(path("features/a/x.bin")), "two");
  EXPECT_FALSE(manager_->_in_transition.load());

  // A minimum the era cannot state counts as met; the update is asked for
  // the running version, and its failure is only logged.
  deployment_->update_result = UpdateResult{false, "disk full"};
  publish_era_data(3, {{"features/a/x.bin", "three"}});
  publish_era(3, "active", "two");
  transition(3);
  EXPECT_EQ(log_.count(LogLevel::warning, "Invalid min_library_version from era config: two"), 1u);
  EXPECT_EQ(log_.count(LogLevel::warning, "Auto-update failed: disk full"), 1u);
  EXPECT_EQ(deployment_->auto_update_calls, (std::vector<std::string>{"2.0", "1.0.0"}));
  EXPECT_EQ(manager_->get_manifest()->era_id, 3);
}

TEST_F(Transition, BytesThatStayWrongHoldTheRunUntilTheEraMoves) {
  sync_era1();
  // bad.bin sorts first; the vocabulary makes two taken entries.
  publish_era_data(2, {{"features/a/bad.bin", "bytes that never arrive intact"}});
  store_.fault("/bucket/features/a/bad.bin", Fault{.wrong_bytes = true});
  // The gate, the look before bad.bin and eight looks after failed
  // attempts see era 2; the ninth look finds no era.
  api_.fault("/era/current", Fault{.status = 200, .body = json_text(wrapped_era(nullptr)), .skip = 10});
  const Files before = live_files();

  record_waits();
  EXPECT_EQ(outcome([&] { transition(2); }), "EraError: Failed to parse active era response during transition");

  std::vector<double> transition_waits;
  for (const auto& [s, status] : waits_) {
    // The download's own waits show at least 1s as well.
    const auto shown = std::to_string(std::max<std::int64_t>(1, static_cast<std::int64_t>(s)));
    EXPECT_EQ(status, "Download interrupted, retrying in " + shown + "s (0/2 files complete)") << s;
    if (s >= 1.0) transition_waits.push_back(s);
  }
  EXPECT_EQ(transition_waits, (std::vector<double>{1, 2, 4, 8, 16, 32, 60, 60}));
  EXPECT_EQ(waits_.size(), 8u + 9u * 2u);  // nine downloads of three attempts each
  // Three fetches for the first download, then two for each later one: it
  // finds the last wrong bytes staged, judges them without a request, and
  // empties the file before fetching again.
  EXPECT_EQ(store_.request_count("/bucket/features/a/bad.bin"), 3u + 8u * 2u);
  EXPECT_EQ(live_files(), before);
  EXPECT_EQ(manager_->get_manifest()->era_id, 1);
  expect_no_run_leftovers(*manager_, 2);
}

TEST_F(Transition, TheRetryCountStartsAfreshForEachFile) {
  sync_era1();
  // Sorted: keep (reused), flaky1, flaky2, then the vocabulary.
  publish_era_data(2, {{"features/a/keep.bin", "same in both eras"},
                       {"features/b/flaky1.bin", "first flaky file"},
                       {"features/c/flaky2.bin", "second flaky file"}});
  // Each fails one whole download, then the next call completes it: the
  // cut one resumes; the wrong one finds its bad bytes staged whole, drops
  // them and fetches again.
  store_.fault("/bucket/features/b/flaky1.bin", Fault{.cut_after_bytes = 1, .times = 3});
  store_.fault("/bucket/features/c/flaky2.bin", Fault{.wrong_bytes = true, .times = 3});
  record_waits(1.0);

  transition(2);

  EXPECT_EQ(waits_, (Waits{{1.0, "Download interrupted, retrying in 1s (1/4 files complete)"},
                            {1.0, "Download interrupted, retrying in 1s (2/4 files complete)"}}));
  // The gate, four looks and two after failures, three confirmations.
  EXPECT_EQ(era_requests(), 1u + 4u + 2u + 3u);
  EXPECT_EQ(read_file(path("features/b/flaky1.bin")), "first flaky file");
  EXPECT_EQ(read_file(path("features/c/flaky2.bin")), "second flaky file");
  expect_no_run_leftovers(*manager_, 2);
}

}  // namespace
}  // namespace quillmarsh::sync
