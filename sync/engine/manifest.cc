#include "sync/manifest.h"

#include <algorithm>
#include <unordered_set>
#include <vector>

#include <simdjson.h>

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
  const auto& entries = manifest.entries();
  return std::any_of(entries.begin(), entries.end(), predicate);
}

bool is_declaration(std::string_view file_path, std::string_view kind) {
  return file_path.ends_with(".pxd") || kind == "vault_declaration" || kind == "backtester_declaration";
}

// What follows from the kind, the platform and the path.
void finish_entry(ManifestEntry& entry, std::string_view platform) {
  entry.module = is_module_kind(entry.kind);
  entry.elsewhere = entry.module && !platform.empty() && platform != CURRENT_PLATFORM;
  // Only a path naming "vocabulary.json" can be one; most are not, and the
  // full test normalises the path.
  entry.vocabulary = entry.path.find("vocabulary.json") != std::string_view::npos &&
                     _vocabulary_named_universe_from_path(entry.path).has_value();
}

// An entry whose members the passes read are plain: an integer size, a text
// or null digest, text kind and platform, none repeated. False for any
// other, which the general reader then takes.
bool decode_written_entry(simdjson::dom::element value, ManifestEntry& entry) {
  simdjson::dom::object object;
  if (value.get_object().get(object)) return false;
  constexpr std::string_view kRead[] = {"size_bytes", "sha256", "kind", "platform"};
  unsigned seen = 0;
  std::string_view platform;
  for (const simdjson::dom::key_value_pair member : object) {
    const auto name = std::find(std::begin(kRead), std::end(kRead), member.key);
    if (name == std::end(kRead)) continue;
    const unsigned bit = 1u << (name - std::begin(kRead));
    if (seen & bit) return false;
    seen |= bit;
    if (*name == "size_bytes") {
      if (!member.value.is_int64()) return false;
      entry.size_bytes = std::max<std::int64_t>(member.value.get_int64().value_unsafe(), -1);
      continue;
    }
    if (*name == "sha256" && member.value.is_null()) continue;  // stated as not given
    std::string_view text;
    if (member.value.get_string().get(text)) return false;
    if (*name == "sha256") {
      entry.sha256 = text;
      entry.sha256_given = !text.empty();
    } else if (*name == "kind") {
      entry.kind = text;
    } else {
      platform = text;
    }
  }
  finish_entry(entry, platform);
  return true;
}

}  // namespace

static_assert(kJsonReadPadding >= simdjson::SIMDJSON_PADDING);

struct Manifest::Text {
  std::string text;
  // The entries' views point into it. The parser that filled it, and its
  // index of the text, went when the reading was done.
  simdjson::dom::document document;
};

Manifest::Manifest(std::shared_ptr<Json> data)
    : era_id(member_or(require_object(data), "era_id", 0)),
      version(member_or(*data, "version", 0)),
      base_url(member_or(*data, "base_url", nullptr)),
      pnl_column_count(member_or(*data, "pnl_column_count", 0)),
      found_signals(member_or(*data, "found_signals", Json::object())),
      found_strategies(member_or(*data, "found_strategies", Json::object())),
      useful_signals(member_or(*data, "useful_signals", Json::object())),
      data_(std::move(data)) {
  decode_entries();
}

Manifest::Manifest(Json top, std::unique_ptr<Text> text)
    : era_id(member_or(top, "era_id", 0)),
      version(member_or(top, "version", 0)),
      base_url(member_or(top, "base_url", nullptr)),
      pnl_column_count(member_or(top, "pnl_column_count", 0)),
      found_signals(member_or(top, "found_signals", Json::object())),
      found_strategies(member_or(top, "found_strategies", Json::object())),
      useful_signals(member_or(top, "useful_signals", Json::object())),
      text_(std::move(text)),
      files_are_a_map_(true) {}

Manifest::~Manifest() = default;

std::shared_ptr<Manifest> Manifest::from_written_text(std::string& text) {
  auto kept = std::make_unique<Text>();
  std::swap(kept->text, text);
  // Whatever refuses the text hands it back.
  struct GiveBack {
    std::unique_ptr<Text>& kept;
    std::string& text;
    ~GiveBack() {
      if (kept) std::swap(kept->text, text);
    }
  } give_back{kept, text};
  // Stricter than the general reader's limit, so that nothing it refuses
  // passes here.
  constexpr std::size_t kMaxDepth = 999;
  simdjson::dom::parser parser;
  if (parser.allocate(kept->text.size(), kMaxDepth)) return nullptr;
  // Parsed in place when the text has its padding; the library copies it otherwise.
  const bool padded = kept->text.capacity() - kept->text.size() >= simdjson::SIMDJSON_PADDING;
  simdjson::dom::object top;
  if (parser.parse_into_document(kept->document, kept->text.data(), kept->text.size(), !padded)
          .get_object()
          .get(top)) {
    return nullptr;
  }
  Json others = Json::object();
  simdjson::dom::object files;
  std::unordered_set<std::string_view> keys;
  bool has_files = false;
  for (const simdjson::dom::key_value_pair member : top) {
    if (!keys.insert(member.key).second) return nullptr;
    if (member.key == "files") {
      if (member.value.get_object().get(files)) return nullptr;
      has_files = true;
      continue;
    }
    // The few small members go through the general reader, so each holds
    // the very value it would hold there.
    try {
      others.get_ref<Json::object_t&>().emplace_back(std::string(member.key),
                                                     parse_json_text(simdjson::minify(member.value)));
    } catch (const ValueError&) {
      return nullptr;
    }
  }
  if (!has_files) return nullptr;

  std::vector<ManifestEntry> entries;
  entries.reserve(files.size());
  for (const simdjson::dom::key_value_pair member : files) {
    ManifestEntry entry;
    entry.path = member.key;
    entry.index = entries.size();
    if (!decode_written_entry(member.value, entry)) return nullptr;
    // What the filters would remove is the general reader's business.
    if (is_declaration(entry.path, entry.kind) || _is_retired_found_pnl_long_file(entry.path)) return nullptr;
    entries.push_back(entry);
  }
  // A repeated path is the general reader's business too. Paths in strict
  // byte order, as published manifests list them, cannot repeat; only other
  // orders need the index built here, which lookups then use.
  const bool strictly_ordered = std::adjacent_find(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
                                  return !(a.path < b.path);
                                }) == entries.end();
  std::unordered_map<std::string_view, std::size_t> index;
  if (!strictly_ordered) {
    index.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (!index.emplace(entries[i].path, i).second) return nullptr;
    }
  }

  std::shared_ptr<Manifest> manifest(new Manifest(std::move(others), std::move(kept)));
  manifest->entries_ = std::move(entries);
  if (!strictly_ordered) std::call_once(manifest->index_built_, [&] { manifest->index_ = std::move(index); });
  return manifest;
}

const std::shared_ptr<Json>& Manifest::_data() const {
  std::call_once(data_built_, [this] {
    if (data_) return;
    auto data = std::make_shared<Json>(parse_json_text(text_->text));
    const auto& members = data->at("files").get_ref<const Json::object_t&>();
    infos_.reserve(members.size());
    for (const auto& member : members) infos_.push_back(&member.second);
    data_ = std::move(data);
  });
  return data_;
}

const Json& Manifest::info(const ManifestEntry& entry) const {
  if (entry.info) return *entry.info;
  _data();
  return *infos_.at(entry.index);
}

void Manifest::decode_entries() {
  entries_.clear();
  const Json& all = files();
  files_are_a_map_ = all.is_object();
  if (!files_are_a_map_) return;
  const auto& members = all.get_ref<const Json::object_t&>();
  entries_.reserve(members.size());
  for (const auto& [path, info] : members) {
    entries_.push_back(decode_manifest_entry(path, info));
    entries_.back().index = entries_.size() - 1;
  }
}

void Manifest::build_index() const {
  index_.clear();
  index_.reserve(entries_.size());
  for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].path, i);
}

const ManifestEntry* Manifest::find(std::string_view path) const {
  std::call_once(index_built_, [this] { build_index(); });
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
    build_index();
    return;
  }
  for (ManifestEntry& decoded : entries_) {
    if (decoded.path != path) continue;
    const std::size_t index = decoded.index;
    decoded = decode_manifest_entry(decoded.path, all[path]);
    decoded.index = index;
  }
}

Json& Manifest::files() {
  Json& data = *_data();
  const auto it = data.find("files");
  return it == data.end() ? own_files_ : *it;
}

const Json& Manifest::files() const {
  const Json& data = *_data();
  const auto it = data.find("files");
  return it == data.end() ? own_files_ : *it;
}

Json Manifest::to_dict() const { return *_data(); }

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
    finish_entry(entry, "");
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
  finish_entry(entry, text("platform"));
  return entry;
}

std::string entry_text(const Json& file_info, const char* key) {
  if (!file_info.is_object()) return "";
  const auto it = file_info.find(key);
  return it != file_info.end() && it->is_string() ? it->get<std::string>() : "";
}

bool is_module_kind(std::string_view kind) { return kind == "vault_module" || kind == "backtester_module"; }

bool _is_agent_bundle_declaration_file(std::string_view file_path, const Json& file_info) {
  return is_declaration(file_path, entry_text(file_info, "kind"));
}

bool _is_retired_found_pnl_long_file(std::string_view file_path) {
  // Both retired names hold "pnl", which almost no path does.
  if (file_path.find("pnl") == std::string_view::npos) return false;
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
  return any_file(manifest, [](const ManifestEntry& entry) { return is_declaration(entry.path, entry.kind); });
}

bool _manifest_has_retired_found_pnl_long_files(const Manifest& manifest) {
  return any_file(manifest, [](const ManifestEntry& entry) { return _is_retired_found_pnl_long_file(entry.path); });
}

void _write_manifest_json(const std::string& data_dir, const Json& manifest_data) {
  _atomic_write(join_path(data_dir, "manifest.json"), json_text(manifest_data));
}

}  // namespace quillmarsh::sync
