#include "tests/crash/served_world.h"

#include <algorithm>

#include "sync/engine/file_primitives.h"
#include "tests/cli/qmsync_fixture.h"

namespace quillmarsh::sync::testing {
namespace {

const std::vector<std::string> kUniverses = {"equities", "futures"};

std::string vocabulary_path(const std::string& universe) { return "features/" + universe + "/vocabulary.json"; }

bool is_vocabulary(const std::string& path) { return path.ends_with("/vocabulary.json"); }

}  // namespace

ServedWorld::ServedWorld(std::uint32_t seed, int large_files, int small_files, std::size_t kept_versions)
    : rng_(seed), kept_versions_(kept_versions) {
  Published p;
  p.era = 1;
  p.version = 1;
  for (int i = 0; i < large_files; ++i) {
    p.files["large/part-" + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(std::uniform_int_distribution<std::size_t>(1 << 20, 2 << 20)(rng_));
  }
  for (int i = 0; i < small_files; ++i) {
    p.files["small/" + std::to_string(i % 4) + "/item-" + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(std::uniform_int_distribution<std::size_t>(1, 40 << 10)(rng_));
  }
  p.files["small/empty.txt"] = "";
  for (const std::string& universe : kUniverses) p.files[vocabulary_path(universe)] = vocabulary_text(1, universe);
  p.seed = fresh_bytes(60);
  api_.put("/era/current", R"({"era_id": 1, "state": "active"})", {{"Content-Type", "application/json"}});
  serve(std::move(p));
}

std::string ServedWorld::fresh_bytes(std::size_t n) { return pseudo_random_bytes(n, rng_()); }

const Published& ServedWorld::publish_next_version(int added_files) {
  // Within an era a published file keeps its bytes: a version adds files and
  // drops one, and only a new era changes what a path holds.
  Published p = current();
  p.version += 1;
  std::vector<std::string> data_paths;
  for (const auto& [path, bytes] : p.files) {
    if (!is_vocabulary(path) && path != "small/empty.txt") data_paths.push_back(path);
  }
  if (data_paths.size() > 2) p.files.erase(data_paths[rng_() % data_paths.size()]);
  for (int i = 0; i < added_files; ++i) {
    const bool large = rng_() % 4 == 0;
    p.files[(large ? "large/new-" : "small/new/item-") + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(large ? (1 << 20) + rng_() % (1 << 20) : 1 + rng_() % (20 << 10));
  }
  serve(std::move(p));
  return served_.back();
}

const Published& ServedWorld::publish_next_era() {
  Published p = current();
  p.era += 1;
  p.version = 1;
  std::bernoulli_distribution changes(0.5);
  for (auto& [path, bytes] : p.files) {
    if (is_vocabulary(path)) continue;
    if (!bytes.empty() && changes(rng_)) bytes = fresh_bytes(bytes.size());
  }
  for (const std::string& universe : kUniverses) p.files[vocabulary_path(universe)] = vocabulary_text(p.era, universe);
  p.seed = fresh_bytes(60);
  const std::int64_t era = p.era;
  serve(std::move(p));
  api_.put("/era/current", R"({"era_id": )" + std::to_string(era) + R"(, "state": "active"})",
           {{"Content-Type", "application/json"}});
  return served_.back();
}

Published ServedWorld::current() const {
  std::lock_guard<std::mutex> lock(mu_);
  return served_.back();
}

void ServedWorld::serve(Published p) {
  p.prefix = "/bucket/e" + std::to_string(p.era) + "/v" + std::to_string(p.version);
  Json files = Json::object();
  for (const auto& [path, bytes] : p.files) {
    store_.put(p.prefix + "/" + path, bytes);
    Json entry = Json::object();
    entry["size_bytes"] = bytes.size();
    entry["sha256"] = _sha256(bytes);
    files[path] = std::move(entry);
  }
  p.manifest = Json::object();
  p.manifest["era_id"] = p.era;
  p.manifest["version"] = p.version;
  p.manifest["base_url"] = store_.base_url() + p.prefix;
  p.manifest["files"] = std::move(files);

  // The manifest before its version document, so that whoever sees the new
  // version can fetch the manifest that goes with it.
  api_.put("/data/manifest", json_text(p.manifest), {{"Content-Type", "application/json"}});
  api_.put("/data/manifest/version",
           R"({"version": )" + std::to_string(p.version) + R"(, "era_id": )" + std::to_string(p.era) + "}",
           {{"Content-Type", "application/json"}});
  api_.put("/data/shuffle", p.seed, {{"X-Era-Id", std::to_string(p.era)}});

  std::lock_guard<std::mutex> lock(mu_);
  served_.push_back(std::move(p));
  // A client may still be fetching a version before the newest; older ones
  // go, or a long run would hold every version in memory.
  while (served_.size() > kept_versions_) {
    for (const auto& [path, bytes] : served_.front().files) store_.remove(served_.front().prefix + "/" + path);
    served_.pop_front();
  }
}

std::vector<std::string> ServedWorld::client(const std::string& binary, const std::string& data_dir,
                                             const std::string& token_file, std::vector<std::string> command) const {
  command.insert(command.begin(), binary);
  for (const std::string& option : {std::string("--data-dir"), data_dir, std::string("--server"), api_url(),
                                    std::string("--ca-file"), TestServer::ca_file(), std::string("--token-file"),
                                    token_file}) {
    command.push_back(option);
  }
  return command;
}

}  // namespace quillmarsh::sync::testing
