#include "server/server_root.h"

#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync::server {

std::string ServerRoot::state_path() const { return join_path(root, "current.json"); }
std::string ServerRoot::era_dir(std::int64_t era_id) const {
  return join_path(root, "era_" + std::to_string(era_id));
}
std::string ServerRoot::manifest_path(std::int64_t era_id) const {
  return join_path(era_dir(era_id), "manifest.json");
}
std::string ServerRoot::seed_path(std::int64_t era_id) const {
  return join_path(era_dir(era_id), "shuffle_seed.enc");
}
std::string ServerRoot::files_dir(std::int64_t era_id) const { return join_path(era_dir(era_id), "files"); }
std::string ServerRoot::tls_dir() const { return join_path(root, "tls"); }

Json era_state(std::int64_t era_id, const std::string& state) {
  Json doc = Json::object();
  doc["era_id"] = era_id;
  doc["state"] = state;
  return doc;
}

std::optional<Json> read_era_state(const ServerRoot& root) {
  if (!path_exists(root.state_path())) return std::nullopt;
  return parse_json_text(read_file(root.state_path()));
}

void write_era_state(const ServerRoot& root, const Json& state) {
  _atomic_write(root.state_path(), json_text(state));
}

std::optional<std::int64_t> named_era(const Json& state) {
  if (!state.is_object()) return std::nullopt;
  const Json* era = &state;
  if (state.contains("era")) era = &state["era"];
  if (!era->is_object() || !era->contains("era_id")) return std::nullopt;
  try {
    return integer_of((*era)["era_id"]);
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace quillmarsh::sync::server
