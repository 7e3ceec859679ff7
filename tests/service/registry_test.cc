// The registry of shared managers and their consumers: one manager per real
// directory, the threads that the first consumer starts and the last one
// stops, the count on disk, and the monitor that acquire starts.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sync/collaborators/transport_security.h"
#include "sync/era/era_thread.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/era_fixture.h"
#include "tests/support/wait_until.h"

namespace quillmarsh::sync {
namespace {

using testing::EraFixture;
using testing::outcome;
using testing::wait_until;

SyncManager::TokenSource token(std::string text) { return [text] { return text; }; }

class Registry : public EraFixture {
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
    publish_era(1);
  }
};

TEST_F(Registry, OneInstancePerRealDirectoryWhileHeldWithTheNewestToken) {
  // An instance nobody holds, or a construction that fails, leaves nothing
  // registered: the servers below would otherwise be refused.
  const std::string elsewhere = "https://127.0.0.1:9";
  std::weak_ptr<SyncManager> dropped = SyncManager::get_or_create(dir_.path(), elsewhere, token("t"));
  EXPECT_TRUE(dropped.expired());
  const std::string missing = dir_ / "missing";
  EXPECT_THROW(SyncManager::get_or_create(missing, elsewhere, token("t")), FileNotFoundError);
  make_dirs(missing);
  EXPECT_NO_THROW(shared(missing));

  auto first = shared(dir_.path(), token("first"), 600.0);
  EXPECT_EQ(shared(dir_.path() + "/.", token("second"), 5.0), first);
  EXPECT_EQ(first->_poll_interval, 600.0);
  publish(manifest(1, 1));
  first->needs_sync();
  EXPECT_EQ(last_authorization("/data/manifest/version"), "Bearer second");
  EXPECT_EQ(outcome([&] { SyncManager::get_or_create(dir_.path(), elsewhere, token("third")); }),
            "ValueError: SyncManager for '" + std::filesystem::canonical(dir_.path()).string() +
                "' already exists with server_url='" + api_.base_url() + "', cannot reuse with server_url='" +
                elsewhere + "'");
  // The refused call left the token alone.
  first->needs_sync();
  EXPECT_EQ(last_authorization("/data/manifest/version"), "Bearer second");
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
  // The monitor keeps the token source it was built with; a newer one
  // reaches the manager's own requests.
  EXPECT_EQ(last_authorization("/era/current"), "Bearer first");
  EXPECT_EQ(shared(dir_.path(), token("second")), m);
  monitor->_poll_once();
  EXPECT_EQ(last_authorization("/era/current"), "Bearer first");

  m->acquire();
  m->release();
  EXPECT_EQ(count_file(), "1");
  EXPECT_TRUE(monitor->is_alive());
  m->release();
  EXPECT_EQ(count_file(), "0");
  EXPECT_FALSE(poll_thread->is_alive());
  EXPECT_FALSE(monitor->is_alive());
  EXPECT_EQ(api_.request_count("/era/current"), 2u);  // one poll at start and ours, none after

  auto fresh = shared(dir_.path());
  EXPECT_NE(fresh, m);

  // An unbalanced release writes nothing, stops nothing and evicts nothing.
  remove_file(path(".consumer_count"));
  m->release();
  fresh->release();
  EXPECT_FALSE(path_exists(path(".consumer_count")));
  EXPECT_EQ(m->consumer_count(), 0);
  EXPECT_EQ(shared(dir_.path()), fresh);
  EXPECT_EQ(log_.count_at(LogLevel::warning), 0u);

  // A count left by an earlier process is taken over as it stands, and the
  // threads decide, not the count: the first consumer here starts them.
  SyncManager::_evict(dir_.path());
  write_file(path(".consumer_count"), "5");
  m = shared(dir_.path());
  EXPECT_EQ(m->consumer_count(), 5);
  m->acquire();
  EXPECT_EQ(count_file(), "6");
  EXPECT_TRUE(m->_running.load());
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

// The manifest's era is taken as it stands: whatever it holds, acquire starts
// the monitor, and the era listeners hear its integer where it has one, else 0.
TEST_F(Registry, AManifestEraOfAnyKindNeitherStopsTheMonitorNorTheListeners) {
  quiet_server();
  // The background threads must leave the manifest set here alone: every
  // answer they would act on is refused.
  for (const char* endpoint : {"/era/current", "/data/manifest/version", "/data/manifest"}) {
    api_.fault(endpoint, {.status = 503});
  }
  const std::vector<std::pair<Json, std::int64_t>> eras = {
      {nullptr, 0}, {"seven", 0}, {"7", 7}, {Json::array({1}), 0}, {3, 3}};
  for (const auto& [era, told] : eras) {
    SCOPED_TRACE(era.dump());
    auto m = shared(dir_.path());
    m->_manifest.store(std::make_shared<Manifest>(Json{{"era_id", era}, {"files", Json::object()}}));
    std::vector<std::pair<std::string, std::int64_t>> heard;
    m->register_era_callback(std::make_shared<const SyncManager::EraCallbackFn>(
        [&heard](const std::string& event, std::int64_t era_id) { heard.emplace_back(event, era_id); }));
    ASSERT_NO_THROW(m->acquire());
    const auto monitor = m->_era_thread.load();
    ASSERT_NE(monitor, nullptr);
    EXPECT_TRUE(monitor->is_alive());
    EXPECT_EQ(monitor->_last_known_era_id, era);
    m->_kill_fn();
    m->_restart_fn();
    EXPECT_EQ(heard, (std::vector<std::pair<std::string, std::int64_t>>{{"kill", told}, {"restart", told}}));
    m->release();
  }
}

// An acquire after start() adds no monitor, and the last release still
// stops. A monitor that cannot be built fails the acquire; the count stays
// raised and the poll thread runs, and a later acquire does not retry.
TEST_F(Registry, AnAcquireThatStartsNoMonitorStillCountsAndTheLastReleaseStops) {
  quiet_server();
  auto started = shared(dir_.path());
  started->start();
  started->acquire();
  EXPECT_EQ(started->_era_thread.load(), nullptr);
  EXPECT_FALSE(started->_consumer_lifecycle_started.load());
  const auto poll_thread = started->_sync_thread.load();
  started->release();
  EXPECT_FALSE(poll_thread->is_alive());
  EXPECT_EQ(api_.request_count("/era/current"), 0u);

  auto m = shared(dir_.path());
  ASSERT_NE(m, started);
  const auto policy = transport_security_slot().set(nullptr);
  EXPECT_THROW(m->acquire(), ImportError);
  transport_security_slot().set(policy);
  EXPECT_EQ(count_file(), "1");
  EXPECT_TRUE(m->_running.load());
  EXPECT_FALSE(m->_consumer_lifecycle_started.load());
  EXPECT_EQ(m->_era_thread.load(), nullptr);

  m->acquire();
  EXPECT_EQ(count_file(), "2");
  EXPECT_EQ(m->_era_thread.load(), nullptr);
  m->release();
  m->release();
  EXPECT_FALSE(m->_running.load());
}

}  // namespace
}  // namespace quillmarsh::sync
