// The server's manifest: what a data directory must hold for an era.
#ifndef QUILLMARSH_SYNC_MANIFEST_H_
#define QUILLMARSH_SYNC_MANIFEST_H_

#include <memory>
#include <string>
#include <string_view>

#include "sync/support/json_text.h"

namespace quillmarsh::sync {

// "In-memory representation of the server manifest."
//
// Holds the decoded JSON object by reference and validates nothing: every
// attribute is the value as the JSON held it (null where the key held null),
// or its default when the key is missing; consumers convert at the point of
// use. `files()` is the very "files" member of `_data`, so a repair written
// through it reaches whoever serialises `_data`.
class Manifest {
 public:
  // Fails with TypeError when `data` is no JSON object.
  explicit Manifest(std::shared_ptr<Json> data);
  explicit Manifest(Json data) : Manifest(std::make_shared<Json>(std::move(data))) {}

  const std::shared_ptr<Json> _data;
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

  // A new top-level copy of `_data`.
  Json to_dict() const;

 private:
  Json own_files_ = Json::object();
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
