// A data directory, an API server and an object store on loopback, with the
// helpers that publish an era's manifest and files on them.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sync/engine/curl_session.h"
#include "sync/engine/file_primitives.h"
#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/sleep.h"
#include "sync/sync_manager.h"
#include "tests/support/scoped_env.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_server.h"

namespace quillmarsh::sync::testing {

class SyncFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    set_extra_ca_file(TestServer::ca_file());
    for (const char* name : {"QUILLMARSH_SYNC_HTTP_TIMEOUT_SECONDS", "QUILLMARSH_SYNC_HTTP_TIMEOUT",
                             "QUILLMARSH_SYNC_HTTP_RETRIES", "QUILLMARSH_SYNC_HTTP_CHUNK_BYTES",
                             "QUILLMARSH_SYNC_MAX_CONCURRENCY", "QUILLMARSH_SYNC_PARALLEL_TIMEOUT_SECONDS",
                             "QUILLMARSH_SYNC_PUBLIC_DOWNLOAD_BASE_URL"}) {
      env_.unset(name);
    }
    previous_sleep_ = replace_sleep([this](double s) {
      std::lock_guard<std::mutex> lock(slept_mu_);
      slept_.push_back(s);
    });
  }
  void TearDown() override {
    replace_sleep(previous_sleep_);
    set_extra_ca_file(std::nullopt);
  }

  // The object store's base URL that manifests name.
  std::string base_url() const { return store_.base_url() + "/bucket"; }

  // A manifest of `era` and `version` over `files`, served from the store.
  Json manifest(std::int64_t era, std::int64_t version, Json files = Json::object()) const {
    Json m = Json::object();
    m["era_id"] = era;
    m["version"] = version;
    m["base_url"] = base_url();
    m["files"] = std::move(files);
    return m;
  }

  // Serves `m` at /data/manifest and its version document beside it.
  void publish(const Json& m, std::optional<Json> version_doc = std::nullopt) {
    api_.put("/data/manifest", json_text(m), {{"Content-Type", "application/json"}});
    if (!version_doc) {
      version_doc = Json::object();
      (*version_doc)["version"] = m.value("version", Json(0));
      (*version_doc)["era_id"] = m.value("era_id", Json(0));
    }
    api_.put("/data/manifest/version", json_text(*version_doc), {{"Content-Type", "application/json"}});
  }

  // Puts `bytes` on the store under manifest path `path`; returns its entry.
  Json store_file(const std::string& path, const std::string& bytes, const std::string& kind = "") {
    store_.put("/bucket/" + path, bytes);
    Json entry = Json::object();
    entry["size_bytes"] = bytes.size();
    entry["sha256"] = _sha256(bytes);
    if (!kind.empty()) entry["kind"] = kind;
    return entry;
  }

  std::shared_ptr<SyncManager> make_manager(double poll_interval_s = 600.0) {
    return SyncManager::create(dir_.path(), api_.base_url(), [] { return std::string("test-token"); },
                               poll_interval_s);
  }

  std::string path(const std::string& relative) const { return dir_ / relative; }

  std::vector<double> slept() {
    std::lock_guard<std::mutex> lock(slept_mu_);
    return slept_;
  }

  TestServer api_;
  TestServer store_;
  TempDir dir_;
  ScopedEnv env_;
  LogCapture log_;

 private:
  SleepFunction previous_sleep_;
  std::mutex slept_mu_;
  std::vector<double> slept_;
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_SYNC_FIXTURE_H_
