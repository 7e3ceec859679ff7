#include "sync/artefacts/vocabulary.h"

#include <algorithm>

#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/integer.h"
#include "sync/support/posix_file.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"

namespace quillmarsh::sync {
namespace {

// The one rule for universe names; `quoted_input` shows the value as the
// caller passed it.
std::string checked_universe(std::optional<std::string_view> text, const std::string& quoted_input) {
  const std::string value(text ? strip(*text) : std::string_view());
  if (value.empty()) throw SyncError("named_universe is required");
  if (value == "." || value == ".." || value.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) {
    throw SyncError("named_universe must be a single safe path segment: " + quoted_input);
  }
  return value;
}

// A vocabulary's own `named_universe` may hold any JSON: null counts as no
// name, any other non-text value by its printed form.
std::string checked_universe(const Json& value) {
  if (value.is_null()) return checked_universe(std::nullopt, "None");
  if (value.is_string()) {
    const std::string& text = value.get_ref<const std::string&>();
    return checked_universe(text, quoted(text));
  }
  return checked_universe(text_of_json(value), quoted_json(value));
}

}  // namespace

std::string _validate_named_universe(const std::optional<std::string>& named_universe) {
  return checked_universe(named_universe ? std::optional<std::string_view>(*named_universe) : std::nullopt,
                          quoted(named_universe));
}

std::optional<std::string> _vocabulary_named_universe_from_path(std::string_view file_path) {
  std::string normalized;
  try {
    normalized = _safe_manifest_relative_path(file_path);
  } catch (const ManifestError&) {
    return std::nullopt;
  }
  const std::size_t first = normalized.find('/');
  if (first == std::string::npos) return std::nullopt;
  const std::size_t second = normalized.find('/', first + 1);
  if (second == std::string::npos || normalized.find('/', second + 1) != std::string::npos) return std::nullopt;
  if (normalized.substr(0, first) != "features" || normalized.substr(second + 1) != "vocabulary.json") {
    return std::nullopt;
  }
  return _validate_named_universe(normalized.substr(first + 1, second - first - 1));
}

std::vector<std::string> _vocabulary_manifest_paths(const Manifest& manifest) {
  if (!manifest.files_are_a_map()) {
    throw TypeError(std::string("manifest files must be a JSON object, not ") + manifest.files().type_name());
  }
  std::vector<std::string> paths;
  for (const ManifestEntry& entry : manifest.entries()) {
    if (entry.vocabulary) paths.emplace_back(entry.path);
  }
  // Byte order of UTF-8 is code point order.
  std::sort(paths.begin(), paths.end());
  return paths;
}

Json _validate_vocabulary_data(Json vocabulary, std::int64_t expected_era_id,
                               const std::optional<std::string>& named_universe) {
  if (!vocabulary.is_object()) throw SyncError("vocabulary.json must contain a JSON object");
  // `vocabulary` is already this function's own copy, metadata included.

  std::vector<std::string> missing;
  for (std::string_view key : _REQUIRED_VOCABULARY_KEYS) {
    if (!vocabulary.contains(key)) missing.emplace_back(key);
  }
  if (!missing.empty()) {
    std::sort(missing.begin(), missing.end());
    throw SyncError("vocabulary.json missing required keys: " + quoted(missing));
  }

  // By value, as the JSON holds it: 7.0 is era 7, the text "7" is not.
  const Json& era_id = vocabulary["era_id"];
  if (!era_id.is_number() || era_id != Json(expected_era_id)) {
    throw EraError("vocabulary.json era_id=" + text_of_json(era_id) + " does not match manifest era_id=" +
                   std::to_string(expected_era_id));
  }

  const Json& metadata = vocabulary["metadata"];
  if (!metadata.is_object()) throw SyncError("vocabulary.json metadata must be an object");

  const std::string expected_universe =
      named_universe ? _validate_named_universe(named_universe) : checked_universe(vocabulary["named_universe"]);
  const Json expected(expected_universe);
  if (vocabulary["named_universe"] != expected) {
    throw SyncError("vocabulary.json named_universe does not match manifest path " + quoted(expected_universe));
  }
  const auto meta_universe = metadata.find("named_universe");
  if (meta_universe == metadata.end() || *meta_universe != expected) {
    throw SyncError("vocabulary.json metadata.named_universe does not match manifest path " +
                    quoted(expected_universe));
  }
  return vocabulary;
}

Json _validate_vocabulary_bytes(std::string_view data, std::int64_t expected_era_id,
                                const std::optional<std::string>& named_universe) {
  Json parsed;
  try {
    check_utf8(data);
    parsed = parse_json_text(data);
  } catch (const std::exception& e) {
    throw SyncError(std::string("vocabulary.json is not valid JSON: ") + e.what(), std::current_exception());
  }
  return _validate_vocabulary_data(std::move(parsed), expected_era_id, named_universe);
}

Json _validate_vocabulary_file(const std::string& path, std::int64_t expected_era_id,
                               const std::optional<std::string>& named_universe) {
  if (!path_exists(path)) throw SyncError("vocabulary.json is missing");
  std::string data;
  try {
    data = read_file(path);
  } catch (const std::exception& e) {
    throw SyncError(std::string("vocabulary.json is not readable: ") + e.what(), std::current_exception());
  }
  return _validate_vocabulary_bytes(data, expected_era_id, named_universe);
}

Json _validate_manifest_vocabulary_files(const std::string& data_dir, const Manifest& manifest) {
  const std::vector<std::string> paths = _vocabulary_manifest_paths(manifest);
  if (paths.empty()) throw SyncError("manifest is missing per-universe vocabulary.json entries");
  Json vocabularies = Json::object();
  for (const std::string& file_path : paths) {
    const std::optional<std::string> named_universe = _vocabulary_named_universe_from_path(file_path);
    const std::string local_path = _manifest_local_path(data_dir, file_path);
    // Two spellings of one universe give one member; the later one wins.
    vocabularies[*named_universe] =
        _validate_vocabulary_file(local_path, integer_of(manifest.era_id), named_universe);
  }
  return vocabularies;
}

Json _first_vocabulary_metadata(const Json& vocabularies) {
  if (!vocabularies.is_object()) return Json::object();
  for (const auto& [universe, vocabulary] : vocabularies.items()) {
    if (!vocabulary.is_object()) continue;
    const auto it = vocabulary.find("metadata");
    if (it == vocabulary.end()) return Json::object();
    if (it->is_object()) return *it;
  }
  return Json::object();
}

}  // namespace quillmarsh::sync
