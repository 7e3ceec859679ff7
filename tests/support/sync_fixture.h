// A data directory, an API server and an object store on loopback, with the
// helpers that publish an era's manifest and files on them.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "sync/engine/curl_session.h"
#include "sync/engine/file_primitives.h"
#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/sleep.h"
#include "sync/sync_manager.h"
#include "tests/support/outcome.h"
#include "tests/support/sample_data.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_server.h"

namespace quillmarsh::sync::testing {

inline std::string vocabulary_path(const std::string& universe) {
  return "features/" + universe + "/vocabulary.json";
}

// The manifest entry of `bytes`: their size and digest.
inline Json entry_of(const std::string& bytes) {
  return Json{{"size_bytes", bytes.size()}, {"sha256", _sha256(bytes)}};
}

// What callbacks and stand-in modules were told, in order, from any thread.
class EventLog {
 public:
  void add(std::string event) {
    std::lock_guard<std::mutex> lock(mu_);
    events_.push_back(std::move(event));
  }
  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(mu_);
    return events_;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mu_);
    events_.clear();
  }
  // An era callback that adds "name:event:era" ("event:era" without a name).
  SyncManager::EraCallback callback(const std::string& name = "") {
    return std::make_shared<const SyncManager::EraCallbackFn>([this, name](const std::string& event, std::int64_t era) {
      add((name.empty() ? "" : name + ":") + event + ":" + std::to_string(era));
    });
  }

 private:
  mutable std::mutex mu_;
  std::vector<std::string> events_;
};

// A data directory and the helpers of tests of local logic, which need no
// server: the managers' API address is one nothing answers at.
class DataDirFixture : public ::testing::Test {
 protected:
  std::shared_ptr<SyncManager> make_manager(double poll_interval_s = 600.0) {
    return SyncManager::create(dir_.path(), api_url(), [] { return std::string("test-token"); }, poll_interval_s);
  }
  virtual std::string api_url() const { return "https://127.0.0.1:9"; }

  std::string path(const std::string& relative) const { return dir_ / relative; }

  // Writes `bytes` at `relative` in the data directory, parents made; returns its path.
  std::string put_local(const std::string& relative, const std::string& bytes) {
    make_dirs(dir_name(path(relative)));
    write_file(path(relative), bytes);
    return path(relative);
  }

  // Records at `level` whose message starts with `prefix`.
  std::size_t logged_starting(const std::string& prefix, LogLevel level = LogLevel::warning) const {
    std::size_t n = 0;
    for (const LogRecord& r : log_.records()) n += r.level == level && r.message.starts_with(prefix);
    return n;
  }

  TempDir dir_;
  LogCapture log_;
};

class SyncFixture : public DataDirFixture {
 protected:
  void SetUp() override {
    set_extra_ca_file(TestServer::ca_file());
    for (const char* name : {"QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "QUILLMARSH_SYNC_HTTP_TIMEOUT",
                             "QUILLMARSH_SYNC_HTTP_RETRIES", "QUILLMARSH_SYNC_HTTP_CHUNK_BYTES",
                             "QUILLMARSH_SYNC_MAX_CONCURRENCY", "QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS",
                             "QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL"}) {
      env_.unset(name);
    }
    previous_sleep_ = replace_sleep([this](double s) { waits_.add("sleep " + std::to_string(s).substr(0, 4)); });
  }
  void TearDown() override {
    replace_sleep(previous_sleep_);
    set_extra_ca_file(std::nullopt);
  }

  // The object store's base URL that manifests name.
  std::string base_url() const { return store_.base_url() + "/bucket"; }

  // A manifest of `era` and `version` over `files`, served from the store.
  Json manifest(std::int64_t era, std::int64_t version, Json files = Json::object()) const {
    return Json{{"era_id", era}, {"version", version}, {"base_url", base_url()}, {"files", std::move(files)}};
  }

  // Serves `m` at /data/manifest and its version document beside it.
  void publish(const Json& m, std::optional<Json> version_doc = std::nullopt) {
    api_.put("/data/manifest", json_text(m), {{"Content-Type", "application/json"}});
    if (!version_doc) version_doc = Json{{"version", m.value("version", Json(0))}, {"era_id", m.value("era_id", Json(0))}};
    api_.put("/data/manifest/version", json_text(*version_doc), {{"Content-Type", "application/json"}});
  }

  // Puts `bytes` on the store under manifest path `path`; returns its entry.
  Json store_file(const std::string& path, const std::string& bytes, const std::string& kind = "") {
    store_.put("/bucket/" + path, bytes);
    Json entry = entry_of(bytes);
    if (!kind.empty()) entry["kind"] = kind;
    return entry;
  }

  // `m` with a valid vocabulary per universe added to its files (stored on
  // the object store), and the seed of its era served beside it: what every
  // era needs for a pass to complete.
  Json with_artefacts(Json m, const std::vector<std::string>& universes = {"u"}) {
    const std::int64_t era = m["era_id"].get<std::int64_t>();
    for (const std::string& universe : universes) {
      m["files"][vocabulary_path(universe)] =
          store_file(vocabulary_path(universe), json_text(vocabulary(era, universe)));
    }
    api_.put("/data/shuffle", seed_bytes(era), {{"X-Era-Id", std::to_string(era)}});
    return m;
  }

  // Writes a valid vocabulary per universe, the seed of `era` and its side
  // file into the data directory; adds the vocabulary entries to `files`.
  void write_local_artefacts(Json& files, std::int64_t era, const std::vector<std::string>& universes = {"u"}) {
    for (const std::string& universe : universes) {
      const std::string bytes = json_text(vocabulary(era, universe));
      put_local(vocabulary_path(universe), bytes);
      files[vocabulary_path(universe)] = entry_of(bytes);
    }
    write_file(path("shuffle_seed.enc"), seed_bytes(era));
    write_file(path("shuffle_seed.enc.meta.json"), "{\"era_id\": " + std::to_string(era) + "}");
  }

  std::string api_url() const override { return api_.base_url(); }

  TestServer api_;
  TestServer store_;
  ScopedEnv env_;
  EventLog waits_;  // every sleep, as "sleep 0.25", in the order taken

 private:
  SleepFunction previous_sleep_;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_
