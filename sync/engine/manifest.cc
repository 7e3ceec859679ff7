#include "sync/manifest.h"

#include <algorithm>
#include <vector>

#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/engine/platform.h"
#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/json_text.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync {
namespace {

const Json& require_object(const std::shared_ptr<Json>& data) {
  if (!data || !data->is_object()) {
    throw TypeError(std::string("manifest must be a JSON object, not ") +
                    (data ? data->type_name() : "nothing"));
  }
  return *data;
}

Json member_or(const Json& data, const char* key, Json fallback) {
  const auto it = data.find(key);
  return it == data.end() ? std::move(fallback) : *it;
}

// The shared shape of both filters: keep what `drop` refuses, and hand back
// the very input when nothing went.
template <typename Drop>
std::shared_ptr<Json> drop_files(const std::shared_ptr<Json>& manifest_data, Drop drop) {
  const Json& data = require_object(manifest_data);
  const auto files_it = data.find("files");
  if (files_it == data.end() || !files_it->is_object()) return manifest_data;
  const auto& members = files_it->get_ref<const Json::object_t&>();
  // Nearly always nothing goes: then nothing is copied either.
  if (std::none_of(members.begin(), members.end(), [&](const auto& m) { return drop(m.first, m.second); })) {
    return manifest_data;
  }
  // Keys are already unique, so members are appended without the linear
  // lookup that Json's operator[] would make for each of them.
  Json kept = Json::object();
  auto& kept_members = kept.get_ref<Json::object_t&>();
  for (const auto& [path, info] : members) {
    if (!drop(path, info)) kept_members.emplace_back(path, info);
  }
  auto out = std::make_shared<Json>(Json::object());
  for (const auto& [key, value] : data.items()) {
    if (key == "files") (*out)[key] = std::move(kept);
    else (*out)[key] = value;
  }
  return out;
}

template <typename Predicate>
bool any_file(const Manifest& manifest, Predicate predicate) {
  const Json& files = manifest.files();
  if (!files.is_object()) return false;
  for (const auto& [path, info] : files.items()) {
    if (predicate(path, info)) return true;
  }
  return false;
}

}  // namespace

Manifest::Manifest(std::shared_ptr<Json> data)
    : _data(std::move(data)),
      era_id(member_or(require_object(_data), "era_id", 0)),
      version(member_or(*_data, "version", 0)),
      base_url(member_or(*_data, "base_url", nullptr)),
      pnl_column_count(member_or(*_data, "pnl_column_count", 0)),
      found_signals(member_or(*_data, "found_signals", Json::object())),
      found_strategies(member_or(*_data, "found_strategies", Json::object())),
      useful_signals(member_or(*_data, "useful_signals", Json::object())) {
  decode_entries();
}

void Manifest::decode_entries() {
  entries_.clear();
  const Json& all = files();
  if (!all.is_object()) return;
  const auto& members = all.get_ref<const Json::object_t&>();
  entries_.reserve(members.size());
  for (const auto& [path, info] : members) entries_.push_back(decode_manifest_entry(path, info));
}

const ManifestEntry* Manifest::find(std::string_view path) const {
  std::call_once(index_built_, [this] {
    index_.reserve(entries_.size());
    for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].path, i);
  });
  const auto it = index_.find(path);
  return it == index_.end() ? nullptr : &entries_[it->second];
}

void Manifest::set_file(const std::string& path, Json entry) {
  Json& all = files();
  if (!all.is_object()) {
    throw TypeError(std::string("manifest files must be a JSON object, not ") + all.type_name());
  }
  const bool listed = all.contains(path);
  all[path] = std::move(entry);
  if (!listed) {
    // A new member may move every other one: decode afresh. The index is
    // only ever built by lookups, which a manifest being repaired has not
    // had on another thread.
    decode_entries();
    index_.clear();
    for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].path, i);
    return;
  }
  for (ManifestEntry& decoded : entries_) {
    if (decoded.path == path) decoded = decode_manifest_entry(decoded.path, all[path]);
  }
}

Json& Manifest::files() {
  const auto it = _data->find("files");
  return it == _data->end() ? own_files_ : *it;
}

const Json& Manifest::files() const {
  const auto it = _data->find("files");
  return it == _data->end() ? own_files_ : *it;
}

Json Manifest::to_dict() const { return *_data; }

bool is_given(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
    case Json::value_t::discarded:
      return false;
    case Json::value_t::boolean:
      return value.get<bool>();
    case Json::value_t::number_integer:
      return value.get<std::int64_t>() != 0;
    case Json::value_t::number_unsigned:
      return value.get<std::uint64_t>() != 0;
    case Json::value_t::number_float:
      return value.get<double>() != 0.0;
    case Json::value_t::string:
      return !value.get_ref<const std::string&>().empty();
    default:
      return !value.empty();
  }
}

ManifestEntry decode_manifest_entry(std::string_view path, const Json& info) {
  ManifestEntry entry;
  entry.path = path;
  entry.info = &info;
  if (!info.is_object()) {
    entry.vocabulary = _vocabulary_named_universe_from_path(path).has_value();
    return entry;
  }
  const auto text = [&](const char* key) -> std::string_view {
    const auto it = info.find(key);
    return it != info.end() && it->is_string() ? std::string_view(it->get_ref<const std::string&>()) : "";
  };
  if (const auto size = info.find("size_bytes"); size != info.end()) {
    try {
      entry.size_bytes = std::max<std::int64_t>(integer_of(*size), -1);
    } catch (const TypeError&) {
    } catch (const ValueError&) {
    }
  }
  if (const auto sha = info.find("sha256"); sha != info.end()) {
    entry.sha256_given = is_given(*sha);
    entry.sha256 = text("sha256");
  }
  entry.kind = text("kind");
  entry.module = is_module_kind(entry.kind);
  const std::string_view platform = text("platform");
  entry.elsewhere = entry.module && !platform.empty() && platform != CURRENT_PLATFORM;
  // Only a path naming "vocabulary.json" can be one; most are not, and the
  // full test normalises the path.
  entry.vocabulary = path.find("vocabulary.json") != std::string_view::npos &&
                     _vocabulary_named_universe_from_path(path).has_value();
  return entry;
}

std::string entry_text(const Json& file_info, const char* key) {
  if (!file_info.is_object()) return "";
  const auto it = file_info.find(key);
  return it != file_info.end() && it->is_string() ? it->get<std::string>() : "";
}

bool is_module_kind(std::string_view kind) { return kind == "vault_module" || kind == "backtester_module"; }

bool _is_agent_bundle_declaration_file(std::string_view file_path, const Json& file_info) {
  const std::string file_type = entry_text(file_info, "kind");
  return file_path.ends_with(".pxd") || file_type == "vault_declaration" ||
         file_type == "backtester_declaration";
}

bool _is_retired_found_pnl_long_file(std::string_view file_path) {
  std::string text(file_path);
  for (char& c : text) {
    if (c == '\\') c = '/';
  }
  std::string_view trimmed = text;
  while (!trimmed.empty() && trimmed.front() == '/') trimmed.remove_prefix(1);
  while (!trimmed.empty() && trimmed.back() == '/') trimmed.remove_suffix(1);
  std::vector<std::string_view> segments;
  for (std::size_t start = 0;;) {
    const std::size_t slash = trimmed.find('/', start);
    segments.push_back(trimmed.substr(start, slash - start));
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return segments.size() == 5 &&
         (segments[0] == "found_signals" || segments[0] == "found_strategies") &&
         (segments[4] == "pnl_long.arrow" || segments[4] == "pnl.long.arrow");
}

std::shared_ptr<Json> _drop_agent_bundle_declaration_files(const std::shared_ptr<Json>& manifest_data) {
  return drop_files(manifest_data, [](const std::string& path, const Json& info) {
    return _is_agent_bundle_declaration_file(path, info);
  });
}

std::shared_ptr<Json> _drop_retired_found_pnl_long_files(const std::shared_ptr<Json>& manifest_data) {
  return drop_files(manifest_data, [](const std::string& path, const Json&) {
    return _is_retired_found_pnl_long_file(path);
  });
}

bool _manifest_has_agent_bundle_declarations(const Manifest& manifest) {
  return any_file(manifest, [](const std::string& path, const Json& info) {
    return _is_agent_bundle_declaration_file(path, info);
  });
}

bool _manifest_has_retired_found_pnl_long_files(const Manifest& manifest) {
  return any_file(manifest, [](const std::string& path, const Json&) {
    return _is_retired_found_pnl_long_file(path);
  });
}

void _write_manifest_json(const std::string& data_dir, const Json& manifest_data) {
  _atomic_write(join_path(data_dir, "manifest.json"), json_text(manifest_data));
}

}  // namespace quillmarsh::sync
