#include "tests/crash/crash_world.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "server/publisher.h"
#include "server/server_root.h"
#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"

#ifndef QMSYNC_BINARY
#error "QMSYNC_BINARY must name the built qmsync"
#endif

namespace quillmarsh::sync::testing {
namespace {

namespace fs = std::filesystem;

const std::string kToken = "world-token";
const std::set<std::string> kStateFiles = {"manifest.json",  ".sync_hash_cache.json", "shuffle_seed.enc",
                                           "shuffle_seed.enc.meta.json", ".consumer_count", ".sync_flock",
                                           ".transition_lock"};

bool is_vocabulary(const std::string& path) { return path.ends_with("/vocabulary.json"); }

void add_vocabularies(Published& p) {
  for (const std::string universe : {"equities", "futures"}) {
    p.files["features/" + universe + "/vocabulary.json"] = vocabulary_text(p.era, universe);
  }
}

std::optional<std::string> read_if_there(const std::string& path) {
  return path_exists(path) ? std::optional(read_file(path)) : std::nullopt;
}

// Cache entries that vouch for a file as it stands (same size, times and
// inode) with a digest it does not have: the one lie a cache must never tell.
void check_hash_cache(const std::string& data_dir, const std::string& text, DiskState& state) {
  Json cache;
  try {
    cache = parse_json_text(text);
  } catch (const std::exception& e) {
    state.state_problems.push_back(std::string(".sync_hash_cache.json is not whole: ") + e.what());
    return;
  }
  if (!cache.is_object() || !cache.contains("files")) return;
  for (const auto& [path, entry] : cache["files"].items()) {
    if (!entry.is_object() || !entry.contains("sha256") || !state.has(path)) continue;
    // The writer is dead by now: the file is as the snapshot saw it.
    const FileStat st = stat_path(data_dir + "/" + path);
    const auto number = [&](const char* key) { return entry.value(key, Json(-1)).get<std::int64_t>(); };
    if (number("size_bytes") == st.size && number("mtime_ns") == st.mtime_ns && number("ctime_ns") == st.ctime_ns &&
        number("inode") == static_cast<std::int64_t>(st.inode) && entry["sha256"] != state.digests.at(path)) {
      state.state_problems.push_back(".sync_hash_cache.json vouches for " + path + " with a digest it does not have");
    }
  }
}

}  // namespace

ServedWorld::ServedWorld(std::uint32_t seed, int large_files, int small_files)
    : api_(tmp_ / "root", kToken), store_(tmp_ / "root"), rng_(seed) {
  make_dirs(tmp_ / "root");
  write_file(tmp_ / "token", kToken + "\n");
  Published p{1, 1};
  for (int i = 0; i < large_files; ++i) {
    p.files["large/part-" + std::to_string(next_file_++) + ".bin"] = fresh_bytes((1 << 20) + rng_() % (1 << 20));
  }
  for (int i = 0; i < small_files; ++i) {
    p.files["small/" + std::to_string(i % 4) + "/item-" + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(1 + rng_() % (40 << 10));
  }
  p.files["small/empty.txt"] = "";
  add_vocabularies(p);
  publish(std::move(p));
}

Published ServedWorld::publish_next_version(int added_files) {
  // Within an era a published file keeps its bytes: a version adds files and
  // drops one, and only a new era changes what a path holds.
  Published p = current();
  p.version += 1;
  std::vector<std::string> data_paths;
  for (const auto& [path, bytes] : p.files) {
    if (!is_vocabulary(path) && !bytes.empty()) data_paths.push_back(path);
  }
  if (data_paths.size() > 2) p.files.erase(data_paths[rng_() % data_paths.size()]);
  for (int i = 0; i < added_files; ++i) {
    const bool large = rng_() % 4 == 0;
    p.files[(large ? "large/new-" : "small/new/item-") + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(large ? (1 << 20) + rng_() % (1 << 20) : 1 + rng_() % (20 << 10));
  }
  return publish(std::move(p));
}

Published ServedWorld::publish_next_era() {
  Published p = current();
  p.era += 1;
  p.version = 1;
  for (auto& [path, bytes] : p.files) {
    if (!is_vocabulary(path) && !bytes.empty() && rng_() % 2) bytes = fresh_bytes(bytes.size());
  }
  add_vocabularies(p);
  return publish(std::move(p));
}

Published ServedWorld::publish(Published p) {
  // The source holds exactly the new version; the publisher writes the
  // manifest last and names the era served after it.
  const std::string source = tmp_ / "source";
  for (const auto& [path, bytes] : current().files) {
    if (!p.files.contains(path)) remove_file(source + "/" + path);
  }
  for (const auto& [path, bytes] : p.files) {
    make_dirs(dir_name(source + "/" + path));
    write_file(source + "/" + path, bytes);
  }
  server::publish_era({source, tmp_ / "root", p.era, p.version, store_.base_url() + p.prefix(), true});
  p.seed = read_file(server::ServerRoot{tmp_ / "root"}.seed_path(p.era));
  return current_ = std::move(p);
}

std::vector<std::string> ServedWorld::client(const std::string& data_dir, std::vector<std::string> command) const {
  command.insert(command.begin(), QMSYNC_BINARY);
  command.insert(command.end(), {"--data-dir", data_dir, "--server", api_.base_url(), "--ca-file",
                                 TestServer::ca_file(), "--token-file", tmp_ / "token"});
  return command;
}

DiskState snapshot(const std::string& data_dir) {
  DiskState s;
  for (auto it = fs::recursive_directory_iterator(data_dir); it != fs::recursive_directory_iterator(); ++it) {
    const std::string relative = fs::relative(it->path(), data_dir).generic_string();
    if (relative.ends_with(".tmp")) s.tmp_paths.push_back(relative);
    if (!it->is_regular_file()) continue;
    s.digests[relative] = _sha256_file(it->path().string());
    if (relative.ends_with("shuffle_seed.enc.meta.json")) {
      try {
        parse_json_text(read_file(it->path().string()));
      } catch (const std::exception&) {
        s.state_problems.push_back(relative + " is not whole");
      }
    }
  }
  s.manifest_text = read_if_there(data_dir + "/manifest.json");
  s.seed = read_if_there(data_dir + "/shuffle_seed.enc");
  s.seed_meta_text = read_if_there(data_dir + "/shuffle_seed.enc.meta.json");
  if (const auto cache = read_if_there(data_dir + "/.sync_hash_cache.json")) check_hash_cache(data_dir, *cache, s);
  return s;
}

std::vector<std::string> broken_promises(const DiskState& killed, const DiskState& before,
                                         const DiskState& after, const std::vector<Published>& allowed) {
  std::vector<std::string> broken = killed.state_problems;
  for (const auto& [path, digest] : killed.digests) {
    if (kStateFiles.count(path) || path.ends_with(".tmp")) continue;
    // Files the run did not touch are not its doing: files an earlier
    // version dropped stay until a transition, as do the harness's own
    // corruptions until the repair gets to them.
    if (const auto it = before.digests.find(path); it != before.digests.end() && it->second == digest) continue;
    std::string manifest_path = path;
    std::vector<Published> candidates = allowed;
    if (path.starts_with(".transition_era")) {
      // A staged file has passed its digest check: it can only be the new era's.
      manifest_path = path.substr(path.find('/') + 1);
      candidates = {allowed.back()};
      if (manifest_path == "shuffle_seed.enc" && digest != _sha256(allowed.back().seed)) {
        broken.push_back(path + " is not the new era's seed");
      }
      // The seed is checked above, its side file whole by the snapshot.
      if (manifest_path.starts_with("shuffle_seed.enc")) continue;
    }
    if (std::ranges::none_of(candidates, [&](const Published& p) {
          return p.files.contains(manifest_path) && _sha256(p.files.at(manifest_path)) == digest;
        })) {
      broken.push_back(path + " holds bytes of no published version");
    }
  }
  const auto old_or_new = [&](const char* name, const auto member) {
    const std::optional<std::string>& now = killed.*member;
    if (!now && before.*member) broken.push_back(std::string(name) + " vanished");
    if (now && now != before.*member && now != after.*member) {
      broken.push_back(std::string(name) + " is neither the old nor the new one");
    }
  };
  old_or_new("manifest.json", &DiskState::manifest_text);
  old_or_new("shuffle_seed.enc", &DiskState::seed);
  old_or_new("shuffle_seed.enc.meta.json", &DiskState::seed_meta_text);
  return broken;
}

std::vector<std::string> convergence_failures(const DiskState& after, const Published& target) {
  std::vector<std::string> failures;
  for (const auto& [path, bytes] : target.files) {
    if (!after.has(path)) failures.push_back(path + " is missing");
    else if (after.digests.at(path) != _sha256(bytes)) failures.push_back(path + " does not hold its published bytes");
  }
  for (const std::string& path : after.tmp_paths) failures.push_back(path + " was left behind");
  const Json m = after.manifest_text ? parse_json_text(*after.manifest_text) : Json::object();
  if (!after.manifest_text || m["era_id"] != target.era || m["version"] != target.version) {
    failures.push_back("manifest.json is not era " + std::to_string(target.era) + " version " +
                       std::to_string(target.version));
  }
  if (after.seed != target.seed) failures.push_back("shuffle_seed.enc is not the era's seed");
  return failures;
}

}  // namespace quillmarsh::sync::testing
