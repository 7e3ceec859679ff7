// The API site. Everything is read from the root for each request, so a
// publish or a state change is served at once.
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "server/routes.h"
#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/manifest.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync::server {
namespace {

void answer_json(httplib::Response& res, int status, const Json& body) {
  res.status = status;
  res.set_content(json_text(body), "application/json");
}

void answer_detail(httplib::Response& res, int status, const std::string& detail) {
  Json body = Json::object();
  body["detail"] = detail;
  answer_json(res, status, body);
}

// The era served now and its manifest as clients get it.
struct ServedEra {
  std::int64_t era_id = 0;
  Json manifest;
};

class Api {
 public:
  Api(ServerRoot root, ExpectedToken token, std::string files_url)
      : root_(std::move(root)), token_(std::move(token)), files_url_(std::move(files_url)) {}

  // Runs `answer` for an authorised request; any failure is a 500 that says why.
  template <class Answer>
  httplib::Server::Handler guarded(Answer answer) const {
    return [this, answer](const httplib::Request& req, httplib::Response& res) {
      try {
        if (const std::optional<std::string> refused = refusal(req)) return answer_detail(res, 401, *refused);
        answer(res);
      } catch (const std::exception& e) {
        log_warning("reference server: %s %s failed: %s", {req.method, req.path, describe_failure(e)});
        answer_detail(res, 500, describe_failure(e));
      }
    };
  }

  void era_current(httplib::Response& res) const {
    std::optional<Json> state = read_era_state(root_);
    if (!state) state = Json{{"era", nullptr}, {"state", "between_eras"}};
    answer_json(res, 200, *state);
  }

  void manifest(httplib::Response& res) const {
    answer_kept(res, &Answers::manifest);
  }

  void manifest_version(httplib::Response& res) const {
    answer_kept(res, &Answers::version);
  }

  void shuffle(httplib::Response& res) const {
    // The era alone: a large manifest would take most of a second to parse.
    const std::optional<std::int64_t> era_id = served_era_id(res);
    if (!era_id) return;
    const std::string seed_path = root_.seed_path(*era_id);
    if (!path_exists(seed_path)) return answer_detail(res, 404, "era has no shuffle seed");
    res.status = 200;
    res.set_header("X-Era-Id", std::to_string(*era_id));
    res.set_content(read_file(seed_path), "application/octet-stream");
  }

 private:
  // Why a request is refused, in words for the server's log; absent when
  // it is let in. An empty expected token (a token file emptied meanwhile)
  // admits no one.
  std::optional<std::string> refusal(const httplib::Request& req) const {
    const std::string expected = token_();
    if (expected.empty()) return "the server's token is empty";
    const std::string presented = req.get_header_value("Authorization");
    if (!req.has_header("Authorization")) return "no Authorization header";
    if (presented == "Bearer " || presented == "Bearer") return "empty bearer token";
    if (presented != "Bearer " + expected) return "wrong bearer token";
    return std::nullopt;
  }

  // Absent, with a 404 answered, when no era is served or it has no manifest.
  // The era served now, when its manifest is published; absent, with a 404
  // answered, otherwise.
  std::optional<std::int64_t> served_era_id(httplib::Response& res) const {
    const std::optional<Json> state = read_era_state(root_);
    const std::optional<std::int64_t> era_id = state ? named_era(*state) : std::nullopt;
    if (!era_id) {
      answer_detail(res, 404, "no era is being served");
      return std::nullopt;
    }
    if (!path_exists(root_.manifest_path(*era_id))) {
      answer_detail(res, 404, "era " + std::to_string(*era_id) + " is not published");
      return std::nullopt;
    }
    return era_id;
  }

  // served_era_id with the manifest as clients get it.
  std::optional<ServedEra> served_era(httplib::Response& res) const {
    const std::optional<std::int64_t> era_id = served_era_id(res);
    if (!era_id) return std::nullopt;
    ServedEra era{*era_id, parse_json_text(read_file(root_.manifest_path(*era_id)))};
    if (era.manifest.is_object() && era.manifest.value("base_url", Json()).is_null()) {
      era.manifest["base_url"] = files_url_ + "/era_" + std::to_string(*era_id);
    }
    return era;
  }

  using FileKey = std::tuple<std::string, std::int64_t, std::int64_t, std::int64_t, std::uint64_t>;
  // What the served era's manifest alone decides, as sent.
  struct Answers {
    std::string manifest;
    std::string version;
  };

  static Answers answers_of(const ServedEra& era) {
    Answers out;
    out.manifest = json_text(era.manifest);
    // A client keeps the filtered manifest, so the digest is of that.
    auto kept = _drop_retired_found_pnl_long_files(
        _drop_agent_bundle_declaration_files(std::make_shared<Json>(era.manifest)));
    Json doc = Json::object();
    doc["version"] = era.manifest.value("version", Json(0));
    doc["era_id"] = era.manifest.value("era_id", Json(era.era_id));
    doc["manifest_sha256"] = _sha256(json_text(*kept));
    out.version = json_text(doc);
    return out;
  }

  // Answers are kept while the manifest file stays the same file, which a
  // publish (a rename into place) always changes: a manifest of 100000
  // files takes most of a second to parse and print again, and every
  // client pass asks for the version first and the manifest next.
  void answer_kept(httplib::Response& res, std::string Answers::*which) const {
    std::optional<FileKey> key;
    const std::optional<Json> state = read_era_state(root_);
    if (const std::optional<std::int64_t> era_id = state ? named_era(*state) : std::nullopt) {
      const std::string path = root_.manifest_path(*era_id);
      if (const auto st = lstat_path(path)) {
        key = std::make_tuple(path, st->size, st->mtime_ns, st->ctime_ns, st->inode);
        std::lock_guard<std::mutex> lock(kept_mu_);
        if (kept_key_ == key) {
          res.status = 200;
          res.set_content(kept_.*which, "application/json");
          return;
        }
      }
    }
    const auto era = served_era(res);
    if (!era) return;
    Answers answers = answers_of(*era);
    res.status = 200;
    res.set_content(answers.*which, "application/json");
    // Keyed by the file as it was before the read: a change meanwhile is
    // answered afresh next time.
    if (key) {
      std::lock_guard<std::mutex> lock(kept_mu_);
      kept_key_ = std::move(key);
      kept_ = std::move(answers);
    }
  }

  const ServerRoot root_;
  const ExpectedToken token_;
  const std::string files_url_;
  mutable std::mutex kept_mu_;
  mutable std::optional<FileKey> kept_key_;
  mutable Answers kept_;
};

}  // namespace

void add_api_routes(httplib::Server& server, const ServerRoot& root, ExpectedToken token, std::string files_url,
                    const RouteWrapper& wrap) {
  // Every handler holds the Api through its answer, which keeps it alive.
  auto api = std::make_shared<const Api>(root, std::move(token), std::move(files_url));
  auto route = [&server, &wrap, api](const char* path, void (Api::*answer)(httplib::Response&) const) {
    httplib::Server::Handler handler = api->guarded([api, answer](httplib::Response& res) { ((*api).*answer)(res); });
    server.Get(path, wrap ? wrap(std::move(handler)) : std::move(handler));
  };
  route("/era/current", &Api::era_current);
  route("/data/manifest", &Api::manifest);
  route("/data/manifest/version", &Api::manifest_version);
  route("/data/shuffle", &Api::shuffle);
}

}  // namespace quillmarsh::sync::server
