#include "server/reference_server.h"

#include <utility>

#include "server/object_store.h"
#include "server/site.h"
#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/json_text.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync::server {
namespace {

// One info line per answered request, so that a client's trouble (a wrong
// token, a range behind the end) shows on the server's side too.
void log_request(const char* role, const httplib::Request& req, const httplib::Response& res) {
  const std::string range = req.get_header_value("Range");
  const std::string length = res.get_header_value("Content-Length");
  std::string why;
  // The API says why it refused in the body's "detail".
  if (res.status >= 400 && res.get_header_value("Content-Type") == "application/json") {
    try {
      const Json body = parse_json_text(res.body);
      if (body.is_object() && body.contains("detail") && body["detail"].is_string()) {
        why = " (" + body["detail"].get<std::string>() + ")";
      }
    } catch (const Error&) {
      // Not a document of ours: nothing more to say.
    }
  }
  log_info("reference server: %s %s %s%s: %d, %s bytes%s",
           {role, req.method, req.path, range.empty() ? std::string() : " Range " + range, res.status,
            length.empty() ? std::to_string(res.body.size()) : length, why});
}

// Whether `root` holds what publish writes: the era state, or an era with
// its manifest. A directory without either is most likely a source tree,
// where the server's key must never be written.
bool looks_published(const ServerRoot& root) {
  if (path_exists(root.state_path())) return true;
  for (const std::string& name : list_directory(root.root)) {
    const std::optional<std::int64_t> era_id = _parse_era_directory_id(name);
    if (era_id && name == "era_" + std::to_string(*era_id) && path_exists(root.manifest_path(*era_id))) return true;
  }
  return false;
}

}  // namespace

ReferenceServer::ReferenceServer(ServeRequest request) {
  if (!is_directory(request.root_dir)) throw ValueError("server root is not a directory: " + quoted(std::string_view(request.root_dir)));
  root_ = ServerRoot{resolve_path(expand_user(request.root_dir))};
  if (!looks_published(root_)) {
    throw ValueError("server root " + quoted(std::string_view(request.root_dir)) +
                     " holds no published era (no current.json, no era_N/manifest.json); serve the --out "
                     "directory of qmsync publish, not a source tree");
  }
  tls_ = ensure_tls_files(root_.tls_dir());
  files_ = std::make_unique<Site>(tls_, request.files_port, "object store");
  api_ = std::make_unique<Site>(tls_, request.api_port, "API server");
  files_->http().set_logger(
      [](const httplib::Request& req, const httplib::Response& res) { log_request("object store", req, res); });
  api_->http().set_logger(
      [](const httplib::Request& req, const httplib::Response& res) { log_request("API server", req, res); });
  // One table for both sites: their paths never meet.
  auto faults = std::make_shared<FaultTable>();
  for (auto& [path, fault] : request.faults) faults->set(path, std::move(fault));
  ObjectRoutes files{std::make_shared<DirectoryStore>(root_), faults, request.files_bytes_per_second,
                     [site = files_.get()](double s) { return site->pause(s); }};
  add_object_routes(files_->http(), std::move(files));
  const ObjectRoutes api_faults{nullptr, faults, 0, [site = api_.get()](double s) { return site->pause(s); }};
  add_api_routes(
      api_->http(), root_, std::move(request.token), files_->url(),
      [&api_faults](httplib::Server::Handler handler) { return with_faults(std::move(handler), api_faults); });
  files_->start();
  api_->start();
}

ReferenceServer::~ReferenceServer() {
  api_.reset();
  files_.reset();
}

std::string ReferenceServer::api_url() const { return api_->url(); }
std::string ReferenceServer::files_url() const { return files_->url(); }
const TlsFiles& ReferenceServer::tls() const { return tls_; }
const ServerRoot& ReferenceServer::root() const { return root_; }

}  // namespace quillmarsh::sync::server
