#include "sync/artefacts/vocabulary.h"

#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"

namespace quillmarsh::sync {

std::string _validate_named_universe(const std::optional<std::string>& named_universe) {
  const std::string value(named_universe ? strip(*named_universe) : std::string_view());
  if (value.empty()) throw SyncError("named_universe is required");
  if (value == "." || value == ".." || value.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos) {
    throw SyncError("named_universe must be a single safe path segment: " + quoted(named_universe));
  }
  return value;
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

Json _validate_manifest_vocabulary_files(const std::string& /*data_dir*/, const Manifest& /*manifest*/) {
  // Interim: vocabularies are not validated yet, so every manifest counts as
  // having none to check.
  return Json::object();
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
