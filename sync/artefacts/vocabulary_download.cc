// Bringing each universe's vocabulary into a data directory. A vocabulary is
// judged by its content, so a valid file also corrects an incomplete manifest
// entry for it; a stated digest is never overruled.
#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {
namespace {

// A copy of the entry for `file_path`, or an empty map.
Json entry_copy(const Json& files, const std::string& file_path) {
  if (files.is_object()) {
    const auto it = files.find(file_path);
    if (it != files.end() && it->is_object()) return *it;
  }
  return Json::object();
}

// A file that must not stay behind goes; an operating system's refusal to
// remove it does not hide the failure being reported.
void discard(const std::string& path) {
  try {
    remove_file(path);
  } catch (const OSError&) {
  }
}

}  // namespace

void SyncManager::_repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path,
                                                    std::string_view body, const std::optional<std::string>& reason) {
  Json entry = entry_copy(server_manifest.files(), file_path);
  const Json expected_sha = entry.contains("sha256") ? entry["sha256"] : Json();
  const Json expected_size = entry.contains("size_bytes") ? entry["size_bytes"] : Json();
  const std::string actual_sha = _sha256(body);
  const auto actual_size = static_cast<std::int64_t>(body.size());

  if (expected_sha == Json(actual_sha) && expected_size == Json(actual_size)) return;
  if (is_given(expected_sha) && expected_sha != Json(actual_sha)) {
    throw IntegrityError("Refusing to repair vocabulary manifest hash for " + file_path + ": expected " +
                         text_of_json(expected_sha) + ", got " + actual_sha);
  }
  entry["sha256"] = actual_sha;
  entry["size_bytes"] = actual_size;
  // Into the very map the manifest's JSON holds, so the next write carries it.
  server_manifest.set_file(file_path, std::move(entry));
  log_warning("Manifest vocabulary metadata repaired for %s: expected sha=%s size=%s, actual sha=%s size=%s; %s",
              {file_path, text_of_json(expected_sha), text_of_json(expected_size), actual_sha, actual_size,
               reason ? *reason : std::string("validated vocabulary bytes")});
}

bool SyncManager::_download_vocabulary(Manifest& server_manifest,
                                       const std::optional<std::string>& target_data_dir) {
  const std::string data_dir = target_data_dir && !target_data_dir->empty() ? *target_data_dir : _data_dir;
  Json vocabularies = Json::object();
  bool downloaded = false;

  const std::vector<std::string> vocabulary_paths = _vocabulary_manifest_paths(server_manifest);
  if (vocabulary_paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");

  const bool has_base_url = server_manifest.has_base_url();
  for (const std::string& file_path : vocabulary_paths) {
    const std::optional<std::string> named_universe = _vocabulary_named_universe_from_path(file_path);
    const std::string vocab_path = _manifest_local_path(data_dir, file_path);
    Json file_info = entry_copy(server_manifest.files(), file_path);
    if (has_base_url) file_info["_manifest_base_url"] = server_manifest.base_url;

    if (path_exists(vocab_path)) {
      try {
        const std::string vocabulary_bytes = read_file(vocab_path);
        vocabularies[*named_universe] =
            _validate_vocabulary_bytes(vocabulary_bytes, integer_of(server_manifest.era_id), named_universe);
        _repair_vocabulary_manifest_entry(server_manifest, file_path, vocabulary_bytes);
        continue;
      } catch (const std::exception& e) {
        // A refused repair counts like a bad file: fetch afresh.
        log_warning("Local vocabulary %s failed validation; re-downloading: %s", {file_path, e});
      }
    }

    SyncResult scratch_result;  // vocabularies do not count in the caller's record
    try {
      _download_file(file_path, file_info, scratch_result, 3, nullptr, data_dir);
    } catch (const IntegrityError& exc) {
      // What was fetched may be valid by content although it disagrees with
      // the entry; the entry is then what is wrong.
      const std::string tmp_path = vocab_path + ".tmp";
      if (!path_exists(tmp_path)) throw;
      try {
        const std::string repaired_bytes = read_file(tmp_path);
        _validate_vocabulary_bytes(repaired_bytes, integer_of(server_manifest.era_id), named_universe);
        _repair_vocabulary_manifest_entry(server_manifest, file_path, repaired_bytes, std::string(exc.what()));
      } catch (...) {
        discard(tmp_path);
        throw;
      }
      rename_file(tmp_path, vocab_path);
    }

    if (!path_exists(vocab_path)) {
      throw SyncError("Failed to download vocabulary: " + file_path + " was not written");
    }
    try {
      const std::string vocabulary_bytes = read_file(vocab_path);
      vocabularies[*named_universe] =
          _validate_vocabulary_bytes(vocabulary_bytes, integer_of(server_manifest.era_id), named_universe);
      _repair_vocabulary_manifest_entry(server_manifest, file_path, vocabulary_bytes);
    } catch (...) {
      discard(vocab_path);  // a file that does not validate must not stay
      throw;
    }
    downloaded = true;
  }

  // A staging directory's vocabularies never enter the manager.
  if (!target_data_dir) _vocabulary.store(std::make_shared<const Vocabularies>(std::move(vocabularies)));
  return downloaded;
}

}  // namespace quillmarsh::sync
