// The directory a publisher writes and the reference server serves:
//
//   ROOT/current.json            what GET /era/current answers; names the era served
//   ROOT/era_N/manifest.json     era N's manifest, in the client's own text form
//   ROOT/era_N/shuffle_seed.enc  its 60-byte shuffle seed
//   ROOT/era_N/files/...         its data files, as the object store serves them
//   ROOT/tls/                    the CA and server certificate made on first start
//
// Publishing era N+1 and then rewriting current.json is how an era change is
// staged; the server reads the state afresh for every request.
#ifndef QUILLMARSH_SYNC_SERVER_SERVER_ROOT_H_
#define QUILLMARSH_SYNC_SERVER_SERVER_ROOT_H_

#include <cstdint>
#include <optional>
#include <string>

#include "sync/support/json_text.h"

namespace quillmarsh::sync::server {

struct ServerRoot {
  std::string root;

  std::string state_path() const;
  std::string era_dir(std::int64_t era_id) const;
  std::string manifest_path(std::int64_t era_id) const;
  std::string seed_path(std::int64_t era_id) const;
  std::string files_dir(std::int64_t era_id) const;
  std::string tls_dir() const;
};

// The era state document: {"era_id": N, "state": "active"}.
Json era_state(std::int64_t era_id, const std::string& state = "active");

// The state document as it stands, or absent when there is none. A state
// that is not valid JSON fails with ValueError.
std::optional<Json> read_era_state(const ServerRoot& root);

// Writes the state document atomically.
void write_era_state(const ServerRoot& root, const Json& state);

// The era a state document names: its era_id, or that of its "era" object;
// absent between eras or when the id is no integer.
std::optional<std::int64_t> named_era(const Json& state);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_SERVER_ROOT_H_
