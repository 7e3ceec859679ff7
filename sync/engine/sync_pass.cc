// The sync pass: from the version probe to the commit of a new manifest.
//
//   sync -> _sync_impl:
//     1 stale ".tmp" files       5 no-newer-version branch
//     2 version probe            6 file selection and disk space
//     3 version gate, fast path  7 downloads and artefacts
//     4 manifest fetch, checks   8 commit            9 metadata and counts
#include "sync/artefacts/shuffle_seed.h"
#include "sync/artefacts/vocabulary.h"
#include "sync/engine/result_fields.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/stop_point.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// "local >= server" for two versions as the JSON held them: numbers compare
// as numbers, texts as texts, and any other pair cannot be ordered.
bool version_at_least(const Json& local, const Json& server) {
  if (local.is_number() && server.is_number()) return local >= server;
  if (local.is_boolean() || server.is_boolean()) {
    return integer_of(local) >= integer_of(server);
  }
  if (local.is_string() && server.is_string()) return local.get<std::string>() >= server.get<std::string>();
  throw TypeError(std::string("'>=' not supported between instances of '") + local.type_name() + "' and '" +
                  server.type_name() + "'");
}

}  // namespace

SyncResult SyncManager::sync() {
  std::lock_guard<std::mutex> hold(_sync_lock);
  return _sync_impl_under_flock();
}

SyncResult SyncManager::_sync_impl_under_flock() {
  _acquire_flock();
  SyncResult result;
  try {
    result = _sync_impl();
  } catch (...) {
    try {
      _release_flock();
    } catch (...) {
      // The pass's own failure is the one the caller needs to see.
    }
    throw;
  }
  _release_flock();
  return result;
}

SyncResult SyncManager::_sync_impl() {
  // Stage 1: leftovers of an earlier pass are never resumed.
  for (const std::string& path : find_entries(_data_dir, [](std::string_view name) { return name.ends_with(".tmp"); })) {
    try {
      remove_file(path);
    } catch (const OSError& e) {
      log_debug("best-effort tmp cleanup failed for %s: %s", {path, e});
    }
  }

  // Stage 2: the version probe, an optimisation that only a refused login stops.
  std::optional<std::int64_t> server_version_hint;
  std::optional<std::int64_t> server_era_hint;
  try {
    const HttpResponse probe = _http_get(_server_url + "/data/manifest/version");
    if (probe.status == 401) throw AuthError("Authentication failed: HTTP 401");
    if (probe.status == 200) {
      try {
        check_utf8(probe.body);
        const Json version_data = parse_json_text(probe.body);
        if (!version_data.is_object()) throw TypeError("version document is not a JSON object");
        server_version_hint = integer_of(version_data.at("version"));
        const auto era = version_data.find("era_id");
        if (era != version_data.end() && !era->is_null()) server_era_hint = integer_of(*era);
      } catch (const std::exception& e) {
        log_debug("Manifest version response was not parseable: %s", {e});
      }
    }
  } catch (const AuthError&) {
    throw;
  } catch (const std::exception& e) {
    log_warning("Manifest version check failed: %s", {e});
  }

  // Stage 3: the version gate, and the fast path that fetches no manifest.
  const std::string seed_path = join_path(_data_dir, "shuffle_seed.enc");
  const std::shared_ptr<Manifest> local = _manifest.load();
  if (local && server_version_hint && server_era_hint && !_manifest_has_agent_bundle_declarations(*local) &&
      !_manifest_has_retired_found_pnl_long_files(*local)) {
    std::int64_t local_version = -1;
    std::int64_t local_era_id = -1;
    try {
      local_version = integer_of(local->version);
      local_era_id = integer_of(local->era_id);
    } catch (const TypeError&) {
      local_version = local_era_id = -1;
    } catch (const ValueError&) {
      local_version = local_era_id = -1;
    }
    if (local_version == *server_version_hint) {
      if (local_era_id != *server_era_hint) {
        throw EraError("Era mismatch: local era_id=" + std::to_string(local_era_id) +
                       ", server era_id=" + std::to_string(*server_era_hint));
      }
      try {
        Json local_vocabularies = _validate_manifest_vocabulary_files(_data_dir, *local);
        _validate_shuffle_seed_file(seed_path, integer_of(local->era_id));
        ManifestPathResolver paths(_data_dir);
        std::int64_t n_features = 0;
        for (const ManifestEntry& entry : local->entries()) {
          if (!_local_entry_passes(entry, paths)) {
            throw SyncError("Manifest version matched but local data files need repair");
          }
          n_features += entry.kind == "feature";
        }
        auto vocabularies = std::make_shared<const Vocabularies>(std::move(local_vocabularies));
        _vocabulary.store(vocabularies);
        SyncResult result;
        result.era_id = local_era_id;
        result.pnl_column_count = integer_or_zero(local->pnl_column_count);
        result.n_features = n_features;
        fill_vocabulary_metadata(result, *vocabularies);
        return result;
      } catch (const SyncError& e) {  // EraError included
        log_warning("Manifest version matched but local metadata needs repair: %s", {e});
      }
    }
  }

  // Stage 4: the manifest itself.
  const HttpResponse fetched = _http_get(_server_url + "/data/manifest");
  if (fetched.status == 401) throw AuthError("Authentication failed: HTTP " + std::to_string(fetched.status));
  if (fetched.status != 200) throw SyncError("Failed to fetch manifest: HTTP " + std::to_string(fetched.status));
  check_utf8(fetched.body);  // a decoding failure is not a JSON failure
  std::shared_ptr<Json> manifest_data;
  try {
    manifest_data = std::make_shared<Json>(parse_json_text(fetched.body));
  } catch (const ValueError& e) {
    throw ManifestError(std::string("Invalid manifest JSON: ") + e.what(), std::current_exception());
  }
  manifest_data = _drop_retired_found_pnl_long_files(_drop_agent_bundle_declaration_files(manifest_data));
  auto server_manifest = std::make_shared<Manifest>(manifest_data);
  if (local && server_manifest->era_id != local->era_id) {
    // Only an era transition crosses eras.
    throw EraError("Era mismatch: local era_id=" + text_of_json(local->era_id) +
                   ", server era_id=" + text_of_json(server_manifest->era_id));
  }

  // Stage 5: the server has nothing newer; repair what the disk lacks.
  if (local && version_at_least(local->version, server_manifest->version)) {
    bool vocab_needs_repair = false;
    bool seed_needs_repair = false;
    bool data_file_needs_repair = false;
    std::shared_ptr<const Vocabularies> local_vocabularies;
    try {
      local_vocabularies = std::make_shared<const Vocabularies>(
          _validate_manifest_vocabulary_files(_data_dir, *server_manifest));
    } catch (const SyncError&) {
      vocab_needs_repair = true;
    }
    const std::int64_t server_era_id = integer_of(server_manifest->era_id);
    try {
      _validate_shuffle_seed_file(seed_path, server_era_id);
    } catch (const SyncError&) {
      seed_needs_repair = true;
    }
    ManifestPathResolver paths(_data_dir);
    for (const ManifestEntry& entry : server_manifest->entries()) {
      if (!_local_entry_passes(entry, paths)) {
        data_file_needs_repair = true;
        break;
      }
    }
    if (data_file_needs_repair) {
      log_warning("Manifest version matched but local data files need repair");
    } else if (!vocab_needs_repair && !seed_needs_repair) {
      _vocabulary.store(local_vocabularies);
      _manifest.store(server_manifest);
      _write_manifest_json(_data_dir, *manifest_data);
      SyncResult result;
      result.era_id = server_era_id;
      return result;
    } else {
      SyncResult result;
      result.era_id = server_era_id;
      if (vocab_needs_repair) {
        _download_vocabulary(*server_manifest);
        result.vocabulary_downloaded = true;
      }
      if (seed_needs_repair) {
        _download_shuffle_seed(*server_manifest);
        result.shuffle_seed_downloaded = true;
      }
      if (vocab_needs_repair || !_vocabulary.load()) {
        _vocabulary.store(std::make_shared<const Vocabularies>(
            _validate_manifest_vocabulary_files(_data_dir, *server_manifest)));
      }
      fill_vocabulary_metadata(result, *_vocabulary.load());
      _manifest.store(server_manifest);
      _write_manifest_json(_data_dir, *manifest_data);
      return result;
    }
  }

  // Stages 6 and 7: bring what differs.
  SyncResult result;
  const bool vocab_downloaded =
      _download_selected_files(_select_files_to_download(*server_manifest, result), result, *server_manifest);

  // Stage 8: manifest.json is the last thing on the data side to change.
  _write_manifest_json(_data_dir, *manifest_data);
  stop_point("sync: after manifest.json");
  _persist_hash_cache();
  stop_point("sync: after the hash cache");
  _manifest.store(server_manifest);

  // Stage 9.
  _fill_result_counts(result, *server_manifest, vocab_downloaded);
  return result;
}

}  // namespace quillmarsh::sync
