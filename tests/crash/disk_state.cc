#include "tests/crash/disk_state.h"

#include <filesystem>
#include <set>

#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync::testing {
namespace {

namespace fs = std::filesystem;

const std::set<std::string> kStateFiles = {"manifest.json",  ".sync_hash_cache.json", "shuffle_seed.enc",
                                           "shuffle_seed.enc.meta.json", ".consumer_count", ".sync_flock",
                                           ".transition_lock"};

std::optional<std::string> read_if_there(const std::string& path) {
  if (!path_exists(path)) return std::nullopt;
  return read_file(path);
}

bool parses(const std::string& text) {
  try {
    parse_json_text(text);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

// The digest a manifest states for `path`, if it lists it.
std::optional<std::string> stated_digest(const Published& p, const std::string& path) {
  const auto it = p.files.find(path);
  if (it == p.files.end()) return std::nullopt;
  return _sha256(it->second);
}

// Cache entries that vouch for a file as it stands (same size, times and
// inode) with a digest it does not have: the one lie a cache must never tell.
void check_hash_cache(const std::string& data_dir, const std::string& text, const DiskState& state,
                      std::vector<std::string>& broken) {
  Json cache;
  try {
    cache = parse_json_text(text);
  } catch (const std::exception& e) {
    broken.push_back(std::string(".sync_hash_cache.json is not whole: ") + e.what());
    return;
  }
  if (!cache.is_object()) return;
  const Json& entries = cache.contains("files") && cache["files"].is_object() ? cache["files"] : cache;
  for (const auto& [path, entry] : entries.items()) {
    if (!entry.is_object() || !entry.contains("sha256") || !state.has(path)) continue;
    FileStat st;
    try {
      st = stat_path(data_dir + "/" + path);
    } catch (const OSError&) {
      continue;
    }
    const auto number = [&](const char* key) { return entry.value(key, Json(-1)).get<std::int64_t>(); };
    if (number("size_bytes") != st.size || number("mtime_ns") != st.mtime_ns || number("ctime_ns") != st.ctime_ns ||
        number("inode") != static_cast<std::int64_t>(st.inode)) {
      continue;
    }
    if (entry["sha256"] != state.digests.at(path)) {
      broken.push_back(".sync_hash_cache.json vouches for " + path + " with a digest it does not have");
    }
  }
}

}  // namespace

DiskState snapshot(const std::string& data_dir) {
  DiskState s;
  for (auto it = fs::recursive_directory_iterator(data_dir); it != fs::recursive_directory_iterator(); ++it) {
    const std::string relative = fs::relative(it->path(), data_dir).generic_string();
    if (relative.ends_with(".tmp")) s.tmp_paths.push_back(relative);
    if (!it->is_regular_file()) continue;
    s.digests[relative] = _sha256_file(it->path().string());
    if (relative.ends_with("shuffle_seed.enc.meta.json") && !parses(read_file(it->path().string()))) {
      s.state_problems.push_back(relative + " is not whole");
    }
  }
  s.manifest_text = read_if_there(data_dir + "/manifest.json");
  s.hash_cache_text = read_if_there(data_dir + "/.sync_hash_cache.json");
  s.seed = read_if_there(data_dir + "/shuffle_seed.enc");
  s.seed_meta_text = read_if_there(data_dir + "/shuffle_seed.enc.meta.json");
  if (s.hash_cache_text) check_hash_cache(data_dir, *s.hash_cache_text, s, s.state_problems);
  return s;
}

std::vector<std::string> broken_promises(const DiskState& killed, const DiskState& before,
                                         const DiskState& after, const std::vector<Published>& allowed) {
  std::vector<std::string> broken;
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
      if (manifest_path == "shuffle_seed.enc") {
        if (digest != _sha256(allowed.back().seed)) broken.push_back(path + " is not the new era's seed");
        continue;
      }
      if (manifest_path == "shuffle_seed.enc.meta.json") continue;  // checked whole by the snapshot
    }
    bool known = false;
    for (const Published& p : candidates) known = known || stated_digest(p, manifest_path) == digest;
    if (!known) broken.push_back(path + " holds bytes of no published version");
  }

  const auto old_or_new = [&](const char* name, const std::optional<std::string>& now,
                              const std::optional<std::string>& old_one, const std::optional<std::string>& new_one) {
    if (!now) {
      if (old_one) broken.push_back(std::string(name) + " vanished");
      return;
    }
    if (now != old_one && now != new_one) broken.push_back(std::string(name) + " is neither the old nor the new one");
  };
  old_or_new("manifest.json", killed.manifest_text, before.manifest_text, after.manifest_text);
  old_or_new("shuffle_seed.enc", killed.seed, before.seed, after.seed);
  old_or_new("shuffle_seed.enc.meta.json", killed.seed_meta_text, before.seed_meta_text, after.seed_meta_text);
  broken.insert(broken.end(), killed.state_problems.begin(), killed.state_problems.end());
  return broken;
}

std::vector<std::string> convergence_failures(const DiskState& after, const Published& target) {
  std::vector<std::string> failures;
  for (const auto& [path, bytes] : target.files) {
    const auto it = after.digests.find(path);
    if (it == after.digests.end()) {
      failures.push_back(path + " is missing");
    } else if (it->second != _sha256(bytes)) {
      failures.push_back(path + " does not hold its published bytes");
    }
  }
  for (const std::string& path : after.tmp_paths) failures.push_back(path + " was left behind");
  if (!after.manifest_text) {
    failures.push_back("no manifest.json");
  } else {
    const Json m = parse_json_text(*after.manifest_text);
    if (m["era_id"] != target.era || m["version"] != target.version) {
      failures.push_back("manifest.json is not era " + std::to_string(target.era) + " version " +
                         std::to_string(target.version));
    }
  }
  if (after.seed != target.seed) failures.push_back("shuffle_seed.enc is not the era's seed");
  return failures;
}

}  // namespace quillmarsh::sync::testing
