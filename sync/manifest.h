// The server's manifest: what a data directory must hold for an era.
#ifndef QUILLMARSH_SYNC_MANIFEST_H_
#define QUILLMARSH_SYNC_MANIFEST_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// One file of a manifest as the passes read it, decoded once from its entry.
// What a value's JSON kind means (missing, null, text where a number belongs)
// is decided here and nowhere else. Views point into the manifest and live
// as long as it does.
struct ManifestEntry {
  std::string_view path;
  // The entry as the JSON holds it; null in a manifest read from its text,
  // whose JSON is only built when asked for (Manifest::info).
  const nlohmann::ordered_json* info = nullptr;
  std::size_t index = 0;  // place in the manifest's order
  // The stated size when it converts to a non-negative integer; -1 when the
  // entry states none that could be compared.
  std::int64_t size_bytes = -1;
  // The stated digest as text; "" when it is missing or no text.
  std::string_view sha256;
  // Whether a digest counts as given (see is_given): one of another kind
  // than text is still given, and then matches nothing.
  bool sha256_given = false;
  std::string_view kind;  // "" when missing or no text
  bool module = false;    // built per platform, hashed afresh on every check
  // A module built for another platform: never expected on this machine.
  bool elsewhere = false;
  // A vocabulary, judged by its own validators rather than by the file checks.
  bool vocabulary = false;
};

// Decodes one entry; `path` and `info` must outlive the result.
ManifestEntry decode_manifest_entry(std::string_view path, const nlohmann::ordered_json& info);

// "In-memory representation of the server manifest."
//
// Holds the decoded JSON object by reference and validates nothing: every
// attribute is the value as the JSON held it (null where the key held null),
// or its default when the key is missing; consumers convert at the point of
// use. `files()` is the very "files" member of `_data()`, so a repair written
// through it reaches whoever serialises `_data()`.
//
// A manifest read from "manifest.json" (from_written_text) decodes its
// entries straight from the text and builds the JSON only when something
// asks for it: checking an unchanged directory needs the entries alone.
class Manifest {
 public:
  // Fails with TypeError when `data` is no JSON object.
  explicit Manifest(std::shared_ptr<Json> data);
  explicit Manifest(Json data) : Manifest(std::make_shared<Json>(std::move(data))) {}
  ~Manifest();

  // The manifest of `text` when every entry states its size, digest, kind
  // and platform plainly, no path repeats and the filters would remove
  // nothing; null for anything else, which parse_json_text and the filters
  // then take as usual.
  // The manifest takes `text` over when it is one, for the JSON when that is
  // asked for; read with kJsonReadPadding spare, it is parsed where it lies.
  static std::shared_ptr<Manifest> from_written_text(std::string& text);

  // The JSON object; built on first use for a manifest read from its text.
  const std::shared_ptr<Json>& _data() const;
  const Json era_id;            // 0 when missing
  const Json version;           // 0 when missing
  const Json base_url;          // null when missing
  const Json pnl_column_count;  // 0 when missing
  const Json found_signals;     // {} when missing
  const Json found_strategies;  // {} when missing
  const Json useful_signals;    // {} when missing

  // The path-to-entry map; a map of the manifest's own when the key is
  // missing, and null when the key holds null.
  Json& files();
  const Json& files() const;

  // A new top-level copy of `_data()`.
  Json to_dict() const;

  // The files, decoded, in manifest order; empty when "files" is no map.
  const std::vector<ManifestEntry>& entries() const { return entries_; }
  // The entry of `path`, or null when the manifest lists no such path.
  const ManifestEntry* find(std::string_view path) const;
  // The JSON of one of entries().
  const Json& info(const ManifestEntry& entry) const;
  // Whether the manifest names an object store of its own: a base URL that
  // is a non-empty text, which then goes with each file it hands to a
  // download as "_manifest_base_url".
  bool has_base_url() const { return base_url.is_string() && !base_url.get_ref<const std::string&>().empty(); }
  // Whether "files" is a map; TypeError names what it is otherwise.
  bool files_are_a_map() const { return files_are_a_map_; }
  // Replaces the entry of a listed path, in the JSON as in the decoded
  // entries. TypeError when "files" is no map.
  void set_file(const std::string& path, Json entry);

 private:
  struct Text;  // what a manifest read from its text keeps of it
  Manifest(Json top, std::unique_ptr<Text> text);
  void decode_entries();

  mutable std::shared_ptr<Json> data_;
  mutable std::once_flag data_built_;
  std::unique_ptr<Text> text_;
  mutable std::vector<const Json*> infos_;  // for a manifest read from its text, once data_ is built
  bool files_are_a_map_ = false;
  Json own_files_ = Json::object();
  std::vector<ManifestEntry> entries_;
  // Built on the first lookup: most passes never look a path up.
  void build_index() const;
  mutable std::once_flag index_built_;
  mutable std::unordered_map<std::string_view, std::size_t> index_;
};

// Whether a stated value counts as given: null, false, zero and empty text or
// containers do not; anything else does, whatever its kind.
bool is_given(const Json& value);
// The text under `key` of a file entry; "" when the entry is no object, or
// the key is missing or holds something other than text.
std::string entry_text(const Json& file_info, const char* key);
// Module files are built per platform and hashed afresh on every check.
bool is_module_kind(std::string_view kind);

// True for a path ending in ".pxd" or an entry of kind "vault_declaration" or
// "backtester_declaration"; such files are never mirrored.
bool _is_agent_bundle_declaration_file(std::string_view file_path, const Json& file_info);
// True for found_signals|found_strategies/*/*/*/pnl_long.arrow|pnl.long.arrow,
// files that the server no longer uses.
bool _is_retired_found_pnl_long_file(std::string_view file_path);

// Each returns `manifest_data` itself when nothing is removed, and otherwise a
// new top-level copy with a new "files"; the input is never changed. Fails
// with TypeError when `manifest_data` is no JSON object. Readers apply the
// declaration filter first, then the retired filter.
std::shared_ptr<Json> _drop_agent_bundle_declaration_files(const std::shared_ptr<Json>& manifest_data);
std::shared_ptr<Json> _drop_retired_found_pnl_long_files(const std::shared_ptr<Json>& manifest_data);

// Whether a manifest in force still holds entries the filters would remove.
bool _manifest_has_agent_bundle_declarations(const Manifest& manifest);
bool _manifest_has_retired_found_pnl_long_files(const Manifest& manifest);

// Writes "manifest.json" in `data_dir` atomically, in the exact text form
// whose digest the server announces.
void _write_manifest_json(const std::string& data_dir, const Json& manifest_data);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_MANIFEST_H_
