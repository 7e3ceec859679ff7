#include "tests/support/test_server.h"

#include <algorithm>
#include <mutex>

#include "server/object_store.h"
#include "server/routes.h"
#include "server/site.h"

#ifndef QMSYNC_TEST_CERT_DIR
#error "QMSYNC_TEST_CERT_DIR must name the directory holding ca.pem"
#endif

namespace quillmarsh::sync::testing {

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
  auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}

class TestServer::Impl {
 public:
  Impl(Scheme scheme, const std::optional<std::string>& root = std::nullopt, const std::string& token = "")
      : site_(scheme == Scheme::https ? std::optional<server::TlsFiles>(server::TlsFiles{
                                            ca_file(), std::string(QMSYNC_TEST_CERT_DIR) + "/server.pem",
                                            std::string(QMSYNC_TEST_CERT_DIR) + "/server-key.pem"})
                                      : std::nullopt,
              0, "test server") {
    const auto pause = [this](double s) { return site_.pause(s); };
    if (root && !token.empty()) {
      // Registered first, the API's routes take their paths before the store's.
      server::add_api_routes(site_.http(), {*root}, [token] { return token; }, site_.url(), [=, this](auto handler) {
        return [this, h = server::with_faults(std::move(handler), {nullptr, faults_, 0, pause})](
                   const httplib::Request& req, httplib::Response& res) {
          record(req);
          h(req, res);
        };
      });
    }
    server::ObjectRoutes routes{store_, faults_, 0, pause, [this](const httplib::Request& req) { record(req); }};
    if (root) routes.store = std::make_shared<server::DirectoryStore>(server::ServerRoot{*root});
    server::add_object_routes(site_.http(), std::move(routes));
    site_.start();
  }

  void record(const httplib::Request& req) {
    RecordedRequest r{req.path, {}, std::nullopt};
    for (const auto& [name, value] : req.headers) {
      // httplib adds the peer and local addresses as pseudo-headers.
      if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" || name == "LOCAL_PORT") continue;
      auto [it, fresh] = r.headers.emplace(name, value);
      if (!fresh) it->second += ", " + value;
    }
    r.range = r.header("Range");
    std::lock_guard<std::mutex> lock(mu_);
    requests_.push_back(std::move(r));
  }

  std::shared_ptr<server::MemoryStore> store_ = std::make_shared<server::MemoryStore>();
  std::shared_ptr<server::FaultTable> faults_ = std::make_shared<server::FaultTable>();
  mutable std::mutex mu_;
  std::vector<RecordedRequest> requests_;
  server::Site site_;  // last: stopped before what its handlers use goes
};

TestServer::TestServer(Scheme scheme) : impl_(std::make_unique<Impl>(scheme)) {}
TestServer::TestServer(const std::string& root, const std::string& token)
    : impl_(std::make_unique<Impl>(Scheme::https, root, token)) {}
TestServer::~TestServer() = default;

std::string TestServer::base_url() const { return impl_->site_.url(); }
std::string TestServer::url(const std::string& path) const { return base_url() + path; }
std::string TestServer::ca_file() { return std::string(QMSYNC_TEST_CERT_DIR) + "/ca.pem"; }

void TestServer::put(const std::string& path, std::string bytes, Headers headers) {
  impl_->store_->put(path, std::move(bytes), std::move(headers));
}
void TestServer::remove(const std::string& path) { impl_->store_->remove(path); }

void TestServer::fault(const std::string& path, Fault f) { impl_->faults_->set(path, std::move(f)); }
void TestServer::clear_faults() { impl_->faults_->clear(); }

std::vector<RecordedRequest> TestServer::requests() const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  return impl_->requests_;
}

std::size_t TestServer::request_count(const std::string& path) const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  return static_cast<std::size_t>(std::count_if(impl_->requests_.begin(), impl_->requests_.end(),
                                                [&](const RecordedRequest& r) { return r.path == path; }));
}

void TestServer::clear_requests() {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->requests_.clear();
}

std::size_t TestServer::connection_count() const { return impl_->site_.connection_count(); }

}  // namespace quillmarsh::sync::testing
