// The reference server's API site as routes on an httplib server (bearer
// token required); the object store's are in object_store.h.
#ifndef QUILLMARSH_SYNC_SERVER_ROUTES_H_
#define QUILLMARSH_SYNC_SERVER_ROUTES_H_

#include <httplib.h>

#include <functional>
#include <string>

#include "server/server_root.h"

namespace quillmarsh::sync::server {

// The token clients must present, asked for each request so that a rotated
// one takes effect at once.
using ExpectedToken = std::function<std::string()>;

// What a site does around each of its routes' handlers (its faults).
using RouteWrapper = std::function<httplib::Server::Handler(httplib::Server::Handler)>;

// GET /era/current, /data/manifest, /data/manifest/version and /data/shuffle
// for the era the root's state names. A manifest published without a
// base_url is served with "{files_url}/era_N" as its base.
void add_api_routes(httplib::Server& server, const ServerRoot& root, ExpectedToken token, std::string files_url,
                    const RouteWrapper& wrap = {});

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_ROUTES_H_
