// The two sites of the reference server as routes on httplib servers: the
// API (bearer token required) and the object store (public, with ranges).
#ifndef QUILLMARSH_SYNC_SERVER_ROUTES_H_
#define QUILLMARSH_SYNC_SERVER_ROUTES_H_

#include <httplib.h>

#include <cstdint>
#include <functional>
#include <string>

#include "server/server_root.h"

namespace quillmarsh::sync::server {

// The token clients must present, asked for each request so that a rotated
// one takes effect at once.
using ExpectedToken = std::function<std::string()>;

// GET /era/current, /data/manifest, /data/manifest/version and /data/shuffle
// for the era the root's state names. A manifest published without a
// base_url is served with "{files_url}/era_N" as its base.
void add_api_routes(httplib::Server& server, const ServerRoot& root, ExpectedToken token, std::string files_url);

// GET and HEAD of /era_N/{path} from the root's files of era N, any era,
// with single byte ranges.
// GET /era_N/{path}, whole or one byte range. A positive
// `bytes_per_second` paces each response to that rate, to stand in for a
// slow link.
void add_object_store_routes(httplib::Server& server, const ServerRoot& root, std::int64_t bytes_per_second = 0);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_ROUTES_H_
