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

// Whether an entry of another shape than the written one vouches for
// `expected_sha` at `key`: each field converted as an integer would be.
bool other_entry_hits(const Json& entry, const SyncManager::CacheStatKey& key, std::string_view expected_sha) {
  if (!entry.is_object()) return false;
  const auto size = entry_integer(entry, "size_bytes");
  const auto mtime = entry_integer(entry, "mtime_ns");
  const auto ctime = entry_integer(entry, "ctime_ns");
  const auto inode = entry_integer(entry, "inode");
  if (!size || !mtime || !ctime || !inode) return false;
  const auto sha = entry.find("sha256");
  if (sha == entry.end() || !sha->is_string() || sha->get_ref<const std::string&>() != expected_sha) return false;
  // A missing field reads as -1, which no stat gives: such an entry never hits.
  return SyncManager::CacheStatKey{*size, *mtime, *ctime, *inode} == key;
}

bool cached_sha_hits(SyncManager& manager, std::string_view file_path, const SyncManager::CacheStatKey& key,
                     std::string_view expected_sha) {
  std::shared_ptr<const Json> other;
  {
    std::lock_guard<std::mutex> lock(manager._hash_cache_lock);
    const CachedDigest* found = manager._hash_cache.find(file_path);
    if (!found) return false;
    const CachedDigest& entry = *found;
    if (!entry.other) {
      return entry.has_digest(expected_sha) &&
             SyncManager::CacheStatKey{entry.size_bytes, entry.mtime_ns, entry.ctime_ns, entry.inode} == key;
    }
    other = entry.other;
  }
  // Never changed once stored, so it is read outside the lock.
  return other_entry_hits(*other, key, expected_sha);
}

}  // namespace

DigestCache SyncManager::_load_hash_cache() {
  if (!path_exists(_hash_cache_path)) return {};
  std::string text;
  try {
    text = read_file(_hash_cache_path, kJsonReadPadding);
  } catch (const std::exception& e) {
    log_warning("Ignoring unreadable sync hash cache: %s", {e});
    return {};
  }
  // The file as this component writes it is read at the speed of the disk;
  // anything else goes through the general reader and its rules.
  if (auto written = read_written_digest_cache(text, _SYNC_HASH_CACHE_VERSION)) return std::move(*written);
  DigestCache cache;
  Json data;
  try {
    // A file the fast reader parsed but did not take is read again: rarely,
    // as only a hand-edited file gets here, and a cache may always miss.
    if (text.empty()) text = read_file(_hash_cache_path);
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
  for (auto& [file_path, entry] : files->get_ref<Json::object_t&>()) {
    if (entry.is_object()) cache.set(file_path, CachedDigest(std::move(entry)));
  }
  return cache;
}

void SyncManager::_persist_hash_cache() {
  std::string text;
  {
    std::lock_guard<std::mutex> lock(_hash_cache_lock);
    if (!_hash_cache_dirty) return;
    // Written out under the lock: entries are replaced in place.
    text = digest_cache_text(_hash_cache, _SYNC_HASH_CACHE_VERSION);
    // Cleared before the write: an update landing during it sets the flag
    // again, and the next flush carries it.
    _hash_cache_dirty = false;
  }
  try {
    _atomic_write(_hash_cache_path, text);
  } catch (const std::exception& e) {
    log_warning("Failed to persist sync hash cache: %s", {e});
    std::lock_guard<std::mutex> lock(_hash_cache_lock);
    _hash_cache_dirty = true;
  }
}

SyncManager::CacheStatKey SyncManager::_cache_stat_key_of(const FileStat& st) {
  return CacheStatKey{st.size, st.mtime_ns, st.ctime_ns, static_cast<std::int64_t>(st.inode)};
}

SyncManager::CacheStatKey SyncManager::_cache_stat_key(const std::string& local_path) {
  const FileStat st = stat_path(local_path);
  return _cache_stat_key_of(st);
}

namespace {

// The key of the file as `known` says it stands, or as a stat finds it;
// absent when the stat fails.
std::optional<SyncManager::CacheStatKey> stat_key_or_none(const std::string& local_path, const FileStat* known) {
  if (known) return SyncManager::_cache_stat_key_of(*known);
  try {
    return SyncManager::_cache_stat_key(local_path);
  } catch (const OSError&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> SyncManager::_cached_local_sha(const std::string& file_path, const std::string& local_path,
                                                          const std::string& expected_sha) {
  if (expected_sha.empty()) return std::nullopt;
  CacheStatKey key;
  try {
    key = _cache_stat_key(local_path);
  } catch (const OSError&) {
    return std::nullopt;
  }
  if (!cached_sha_hits(*this, file_path, key, expected_sha)) return std::nullopt;
  return expected_sha;
}

void SyncManager::_remember_local_sha(const std::string& file_path, const std::string& local_path,
                                      const std::string& actual_sha, const FileStat* now) {
  if (actual_sha.empty()) return;
  const std::optional<CacheStatKey> found = stat_key_or_none(local_path, now);
  if (!found) return;
  const CacheStatKey& key = *found;
  CachedDigest fresh(key.size_bytes, key.mtime_ns, key.ctime_ns, key.inode, actual_sha);
  std::lock_guard<std::mutex> lock(_hash_cache_lock);
  if (_hash_cache.set(file_path, std::move(fresh))) _hash_cache_dirty = true;
}

bool SyncManager::_local_file_matches_manifest(const std::string& file_path, const std::string& local_path,
                                               const Json& file_info, bool cache_allowed) {
  return _local_file_matches_entry(decode_manifest_entry(file_path, file_info), local_path, cache_allowed);
}

bool SyncManager::_local_file_matches_entry(const ManifestEntry& entry, const std::string& local_path,
                                            bool cache_allowed, const std::optional<FileStat>& known) {
  // One stat serves the existence test, the size test and the cache lookup.
  const std::optional<CacheStatKey> found = stat_key_or_none(local_path, known ? &*known : nullptr);
  if (!found) return false;
  const CacheStatKey& key = *found;
  if (entry.size_bytes >= 0 && key.size_bytes != entry.size_bytes) return false;
  if (!entry.sha256_given) return true;
  // A given digest of another kind than text is still compared, and differs.
  if (cache_allowed && !entry.sha256.empty() && cached_sha_hits(*this, entry.path, key, entry.sha256)) return true;
  const std::string actual_sha = _sha256_file(local_path);
  if (cache_allowed) _remember_local_sha(std::string(entry.path), local_path, actual_sha);
  return !entry.sha256.empty() && actual_sha == entry.sha256;
}

bool SyncManager::_local_manifest_files_complete(const Manifest& manifest) {
  try {
    _validate_shuffle_seed_file(join_path(_data_dir, "shuffle_seed.enc"), integer_of(manifest.era_id));
    _validate_manifest_vocabulary_files(_data_dir, manifest);
  } catch (const SyncError&) {  // EraError is a SyncError
    return false;
  }
  ManifestPathResolver paths(_data_dir);
  for (const ManifestEntry& entry : manifest.entries()) {
    if (!_local_entry_passes(entry, paths)) return false;
  }
  return true;
}

bool SyncManager::_local_entry_passes(const ManifestEntry& entry, ManifestPathResolver& paths) {
  // Vocabulary files are judged by their own validators, and a module built
  // for another platform need not be here.
  if (entry.vocabulary || entry.elsewhere) return true;
  const ManifestPathResolver::Resolved file = paths.resolve(entry.path);
  return _local_file_matches_entry(entry, file.path, !entry.module, file.stat);
}

}  // namespace quillmarsh::sync
