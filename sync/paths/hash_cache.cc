// Comparing the disk with a manifest, and the persistent digest cache that
// spares an unchanged file a re-hash: a digest stays valid while the file's
// size, times and inode stay as they were when it was taken.
#include <algorithm>
#include <utility>
#include <vector>

#include "sync/artefacts/shuffle_seed.h"
#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/engine/platform.h"
#include "sync/engine/tunables.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// Puts the members of every object in `value` in key order, the order in
// which the cache file holds them. Comparing entries is order-sensitive, so
// every entry in memory is kept in this one order. What is already in order,
// as a file written here is, is left as it stands.
void sort_members(Json& value) {
  if (value.is_array()) {
    for (Json& item : value) sort_members(item);
    return;
  }
  if (!value.is_object()) return;
  auto& object = value.get_ref<Json::object_t&>();
  for (auto& member : object) sort_members(member.second);
  const auto by_key = [](const auto& a, const auto& b) { return a.first < b.first; };
  if (std::is_sorted(object.begin(), object.end(), by_key)) return;
  std::vector<Json::object_t::value_type*> members;
  for (auto& member : object) members.push_back(&member);
  std::sort(members.begin(), members.end(), [&](const auto* a, const auto* b) { return by_key(*a, *b); });
  Json sorted = Json::object();
  auto& sorted_object = sorted.get_ref<Json::object_t&>();
  for (auto* member : members) sorted_object.emplace_back(member->first, std::move(member->second));
  value = std::move(sorted);
}

// The integer under `key`, -1 when the entry lacks it; absent when it does
// not convert.
std::optional<std::int64_t> entry_integer(const Json& entry, const char* key) {
  const auto it = entry.find(key);
  if (it == entry.end()) return -1;
  try {
    return integer_of(*it);
  } catch (const TypeError&) {
  } catch (const ValueError&) {
  }
  return std::nullopt;
}

std::optional<std::string> cached_sha_at(SyncManager& manager, const std::string& file_path,
                                         const SyncManager::CacheStatKey& key, const std::string& expected_sha) {
  std::shared_ptr<const Json> entry;
  {
    std::lock_guard<std::mutex> lock(manager._hash_cache_lock);
    const auto it = manager._hash_cache.find(file_path);
    if (it == manager._hash_cache.end()) return std::nullopt;
    entry = it->second;
  }
  // The entry is never changed once stored, so it is read outside the lock.
  if (!entry || !entry->is_object()) return std::nullopt;
  const auto size = entry_integer(*entry, "size_bytes");
  const auto mtime = entry_integer(*entry, "mtime_ns");
  const auto ctime = entry_integer(*entry, "ctime_ns");
  const auto inode = entry_integer(*entry, "inode");
  if (!size || !mtime || !ctime || !inode) return std::nullopt;
  const auto sha = entry->find("sha256");
  if (sha == entry->end() || !sha->is_string() || sha->get_ref<const std::string&>() != expected_sha) {
    return std::nullopt;
  }
  // A missing field reads as -1, which no stat gives: such an entry never hits.
  if (SyncManager::CacheStatKey{*size, *mtime, *ctime, *inode} != key) return std::nullopt;
  return expected_sha;
}

}  // namespace

std::unordered_map<std::string, std::shared_ptr<const Json>> SyncManager::_load_hash_cache() {
  std::unordered_map<std::string, std::shared_ptr<const Json>> cache;
  if (!path_exists(_hash_cache_path)) return cache;
  Json data;
  try {
    const std::string text = read_file(_hash_cache_path);
    check_utf8(text);
    data = parse_json_text(text);
  } catch (const std::exception& e) {
    log_warning("Ignoring unreadable sync hash cache: %s", {e});
    return cache;
  }
  if (!data.is_object()) return cache;
  const auto version = data.find("version");
  if (version == data.end() || version->is_boolean() || *version != Json(_SYNC_HASH_CACHE_VERSION)) return cache;
  const auto files = data.find("files");
  if (files == data.end() || !files->is_object()) return cache;
  auto& members = files->get_ref<Json::object_t&>();
  cache.reserve(members.size());
  for (auto& [file_path, entry] : members) {
    if (!entry.is_object()) continue;
    sort_members(entry);
    cache.insert_or_assign(file_path, std::make_shared<const Json>(std::move(entry)));
  }
  return cache;
}

void SyncManager::_persist_hash_cache() {
  std::vector<std::pair<std::string, std::shared_ptr<const Json>>> entries;
  {
    std::lock_guard<std::mutex> lock(_hash_cache_lock);
    if (!_hash_cache_dirty) return;
    entries.assign(_hash_cache.begin(), _hash_cache.end());
    // Cleared before the write: an update landing during it sets the flag
    // again, and the next flush carries it.
    _hash_cache_dirty = false;
  }
  try {
    std::sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    // Assembled piece by piece: copying every entry into one JSON value
    // first would double the work for a large cache.
    std::string text = "{\"files\": {";
    bool first = true;
    for (const auto& [file_path, entry] : entries) {
      if (!first) text += ", ";
      first = false;
      text += json_text(Json(file_path));
      text += ": ";
      text += json_text(*entry);
    }
    text += "}, \"version\": " + std::to_string(_SYNC_HASH_CACHE_VERSION) + "}";
    _atomic_write(_hash_cache_path, text);
  } catch (const std::exception& e) {
    log_warning("Failed to persist sync hash cache: %s", {e});
    std::lock_guard<std::mutex> lock(_hash_cache_lock);
    _hash_cache_dirty = true;
  }
}

SyncManager::CacheStatKey SyncManager::_cache_stat_key(const std::string& local_path) {
  const FileStat st = stat_path(local_path);
  return CacheStatKey{st.size, st.mtime_ns, st.ctime_ns, static_cast<std::int64_t>(st.inode)};
}

std::optional<std::string> SyncManager::_cached_local_sha(const std::string& file_path, const std::string& local_path,
                                                          const std::string& expected_sha) {
  if (expected_sha.empty()) return std::nullopt;
  CacheStatKey key;
  try {
    key = _cache_stat_key(local_path);
  } catch (const OSError&) {
    return std::nullopt;
  }
  return cached_sha_at(*this, file_path, key, expected_sha);
}

void SyncManager::_remember_local_sha(const std::string& file_path, const std::string& local_path,
                                      const std::string& actual_sha) {
  if (actual_sha.empty()) return;
  CacheStatKey key;
  try {
    key = _cache_stat_key(local_path);
  } catch (const OSError&) {
    return;
  }
  // Built in key order, like every entry in memory.
  Json entry = Json::object();
  auto& members = entry.get_ref<Json::object_t&>();
  members.emplace_back("ctime_ns", key.ctime_ns);
  members.emplace_back("inode", key.inode);
  members.emplace_back("mtime_ns", key.mtime_ns);
  members.emplace_back("sha256", actual_sha);
  members.emplace_back("size_bytes", key.size_bytes);
  auto fresh = std::make_shared<const Json>(std::move(entry));

  std::lock_guard<std::mutex> lock(_hash_cache_lock);
  std::shared_ptr<const Json>& stored = _hash_cache[file_path];
  if (stored && *stored == *fresh) return;
  stored = std::move(fresh);
  _hash_cache_dirty = true;
}

bool SyncManager::_local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                               const Json& file_info, bool cache_allowed) {
  // One stat serves the existence test, the size test and the cache lookup.
  CacheStatKey key;
  try {
    key = _cache_stat_key(local_path);
  } catch (const OSError&) {
    return false;
  }
  if (file_info.is_object() && file_info.contains("size_bytes")) {
    std::int64_t expected_size;
    try {
      expected_size = integer_of(file_info["size_bytes"]);
    } catch (const TypeError&) {
      expected_size = -1;
    } catch (const ValueError&) {
      expected_size = -1;
    }
    if (expected_size >= 0 && key.size_bytes != expected_size) return false;
  }
  const auto sha = file_info.is_object() ? file_info.find("sha256") : file_info.end();
  if (sha == file_info.end() || !is_given(*sha)) return true;
  // A given digest of another kind than text is still compared, and differs.
  const std::string* expected_sha = sha->is_string() ? &sha->get_ref<const std::string&>() : nullptr;
  if (cache_allowed && expected_sha) {
    if (cached_sha_at(*this, file_path, key, *expected_sha)) return true;
  }
  const std::string actual_sha = _sha256_file(local_path);
  if (cache_allowed) _remember_local_sha(file_path, local_path, actual_sha);
  return expected_sha != nullptr && actual_sha == *expected_sha;
}

bool SyncManager::_local_manifest_files_complete(const Manifest& manifest) {
  try {
    _validate_shuffle_seed_file(join_path(_data_dir, "shuffle_seed.enc"), integer_of(manifest.era_id));
    _validate_manifest_vocabulary_files(_data_dir, manifest);
  } catch (const SyncError&) {  // EraError is a SyncError
    return false;
  }
  const Json& files = manifest.files();
  if (!files.is_object()) return true;
  for (const auto& [file_path, file_info] : files.get_ref<const Json::object_t&>()) {
    if (!_local_entry_passes(file_path, file_info)) return false;
  }
  return true;
}

bool SyncManager::_local_entry_passes(const std::string& file_path, const Json& file_info) {
  // Vocabulary files are judged by their own validators.
  if (_vocabulary_named_universe_from_path(file_path)) return true;
  const std::string kind = entry_text(file_info, "kind");
  const std::string file_platform = entry_text(file_info, "platform");
  // A module built for another platform need not be here.
  if (is_module_kind(kind) && !file_platform.empty() && file_platform != CURRENT_PLATFORM) return true;
  const std::string local_path = _manifest_local_path(_data_dir, file_path);
  return _local_file_matches_manifest(file_path, local_path, file_info, !is_module_kind(kind));
}

}  // namespace quillmarsh::sync
