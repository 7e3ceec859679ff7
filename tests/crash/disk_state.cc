#include "tests/crash/disk_state.h"

#include <algorithm>
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

// Cache entries that vouch for a file as it stands (same size, times and
// inode) with a digest it does not have: the one lie a cache must never tell.
void check_hash_cache(const std::string& data_dir, const std::string& text, DiskState& state) {
  std::vector<std::string>& broken = state.state_problems;
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
    if (std::ranges::none_of(candidates, [&](const Published& p) {
          return p.files.contains(manifest_path) && _sha256(p.files.at(manifest_path)) == digest;
        })) {
      broken.push_back(path + " holds bytes of no published version");
    }
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
    if (!after.has(path)) failures.push_back(path + " is missing");
    else if (after.digests.at(path) != _sha256(bytes)) failures.push_back(path + " does not hold its published bytes");
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
