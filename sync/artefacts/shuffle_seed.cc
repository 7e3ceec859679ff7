#include "sync/artefacts/shuffle_seed.h"

#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

std::string _shuffle_seed_meta_path(const std::string& path) { return path + ".meta.json"; }

std::optional<std::string> _header_value(const std::map<std::string, std::string>& headers,
                                         std::string_view name) {
  // The map keeps the server's spelling of each name.
  const std::string wanted = ascii_lower(name);
  for (const auto& [key, value] : headers) {
    if (ascii_lower(key) == wanted) return value;
  }
  return std::nullopt;
}

void _validate_response_era_header(const std::map<std::string, std::string>& headers,
                                   const Json& expected_era_id, std::string_view artifact) {
  const std::optional<std::string> raw = _header_value(headers, "X-Era-Id");
  if (!raw) throw SyncError(std::string(artifact) + " response is missing X-Era-Id");
  std::int64_t response_era_id = 0;
  try {
    response_era_id = integer_of_text(*raw);
  } catch (const ValueError&) {
    throw EraError(std::string(artifact) + " response has invalid X-Era-Id=" + quoted(*raw),
                   std::current_exception());
  }
  if (response_era_id != integer_of(expected_era_id)) {
    throw EraError(std::string(artifact) + " response era_id=" + std::to_string(response_era_id) +
                   " does not match manifest era_id=" + text_of_json(expected_era_id));
  }
}

void _write_shuffle_seed_metadata(const std::string& path, const Json& era_id) {
  Json meta = Json::object();
  meta["era_id"] = integer_of(era_id);
  _atomic_write(_shuffle_seed_meta_path(path), json_text(meta));
}

void _validate_shuffle_seed_bytes(std::string_view data) {
  if (data.size() != kShuffleSeedBytes) {
    throw SyncError("shuffle_seed.enc has invalid size: expected " + std::to_string(kShuffleSeedBytes) +
                    " bytes, got " + std::to_string(data.size()));
  }
}

void _validate_shuffle_seed_file(const std::string& path, const std::optional<std::int64_t>& expected_era_id) {
  if (!path_exists(path)) throw SyncError("shuffle_seed.enc is missing");
  _validate_shuffle_seed_bytes(read_file(path));
  if (!expected_era_id) return;

  const std::string meta_path = _shuffle_seed_meta_path(path);
  if (!path_exists(meta_path)) throw SyncError("shuffle_seed.enc era metadata is missing");
  Json meta;
  try {
    const std::string text = read_file(meta_path);
    check_utf8(text);
    meta = parse_json_text(text);
  } catch (const std::exception&) {
    throw SyncError("shuffle_seed.enc era metadata is invalid", std::current_exception());
  }
  // JSON that is no object cannot answer; that is no bad-seed finding.
  if (!meta.is_object()) {
    throw TypeError(std::string("shuffle_seed.enc era metadata is a JSON ") + meta.type_name() +
                    ", not an object");
  }
  const auto it = meta.find("era_id");
  const Json value = it == meta.end() ? Json() : *it;
  std::int64_t local_era_id = 0;
  try {
    local_era_id = integer_of(value);
  } catch (const std::exception&) {
    throw EraError("shuffle_seed.enc era metadata has invalid era_id=" + quoted_json(value),
                   std::current_exception());
  }
  if (local_era_id != *expected_era_id) {
    throw EraError("shuffle_seed.enc era_id=" + std::to_string(local_era_id) +
                   " does not match manifest era_id=" + std::to_string(*expected_era_id));
  }
}

bool SyncManager::_download_shuffle_seed(const Manifest& server_manifest,
                                         const std::optional<std::string>& target_data_dir) {
  const bool other_root = target_data_dir && !target_data_dir->empty();
  const std::string seed_path = join_path(other_root ? *target_data_dir : _data_dir, "shuffle_seed.enc");

  if (path_exists(seed_path)) {
    try {
      _validate_shuffle_seed_file(seed_path, integer_of(server_manifest.era_id));
      // A valid file is not enough: the manifest in force must be of this era too.
      const std::shared_ptr<Manifest> in_force = _manifest.load();
      if (in_force && in_force->era_id == server_manifest.era_id) return false;
    } catch (const SyncError& e) {  // EraError included
      log_warning("Local shuffle seed failed validation; re-downloading: %s", {e});
    }
  }

  const HttpResponse response = _http_get(_server_url + "/data/shuffle");
  if (response.status == 401) throw AuthError("Authentication failed while downloading shuffle seed: HTTP 401");
  if (response.status != 200) {
    throw SyncError("Failed to download shuffle seed: HTTP " + std::to_string(response.status));
  }
  const std::int64_t expected_era_id = integer_of(server_manifest.era_id);
  // Both tests come before any write, so a bad answer leaves the old seed.
  _validate_response_era_header(response.resp_headers, expected_era_id, "shuffle_seed.enc");
  _validate_shuffle_seed_bytes(response.body);
  // The seed goes first: a crash before the side file leaves the old era
  // named there, and the next look fetches again.
  _atomic_write(seed_path, response.body);
  if (!path_exists(seed_path)) throw SyncError("Failed to download shuffle seed: shuffle_seed.enc was not written");
  _write_shuffle_seed_metadata(seed_path, expected_era_id);
  _validate_shuffle_seed_file(seed_path, expected_era_id);
  return true;
}

}  // namespace quillmarsh::sync
