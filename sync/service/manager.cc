// Construction of a SyncManager and the load of what an earlier run left in
// its data directory. Nothing here contacts a server or starts a thread.
#include <cerrno>

#include "sync/artefacts/vocabulary.h"
#include "sync/collaborators/transport_security.h"
#include "sync/support/integer.h"
#include "sync/support/log.h"
#include "sync/support/posix_file.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

std::shared_ptr<SyncManager> SyncManager::create(std::string data_dir, std::string server_url,
                                                 TokenSource get_token, double poll_interval_s) {
  // The checks come in this order, before anything is read or written.
  if (!get_token) throw TypeError("get_token must be callable, got NoneType");
  if (server_url.empty()) throw ValueError("server_url must not be empty");
  validate_bearer_transport_url(server_url);
  if (!is_directory(data_dir)) {
    throw FileNotFoundError(ENOENT, "data_dir does not exist: " + data_dir);
  }
  return std::make_shared<SyncManager>(PassKey{}, std::move(data_dir), std::move(server_url),
                                       std::move(get_token), poll_interval_s);
}

SyncManager::SyncManager(PassKey, std::string data_dir, std::string server_url, TokenSource get_token,
                         double poll_interval_s)
    : _data_dir(std::move(data_dir)),
      _server_url(std::move(server_url)),
      _poll_interval(poll_interval_s),
      _hash_cache_path(join_path(_data_dir, ".sync_hash_cache.json")),
      _consumer_count_path(join_path(_data_dir, ".consumer_count")),
      _flock_path(join_path(_data_dir, ".sync_flock")),
      _get_token(std::move(get_token)) {
  // Every attribute exists before the first fallible read, so a directory
  // whose state files are all unreadable still gives a usable manager.
  _hash_cache = _load_hash_cache();
  _load_consumer_count();
  _load_manifest();
  _load_vocabulary();
}

SyncManager::~SyncManager() = default;

void SyncManager::_load_consumer_count() {
  _consumer_count = 0;
  if (!path_exists(_consumer_count_path)) return;
  try {
    _consumer_count = integer_of_text(strip(read_file(_consumer_count_path)));
  } catch (const std::exception& e) {
    log_warning("Failed to read consumer count: %s", {e});
    _consumer_count = 0;
  }
}

void SyncManager::_load_manifest() {
  const std::string path = join_path(_data_dir, "manifest.json");
  if (!path_exists(path)) return;
  try {
    std::string text = read_file(path, kJsonReadPadding);
    // The file as this component writes it is read without building its
    // JSON, which only a few callers ever want.
    if (auto written = Manifest::from_written_text(text)) {
      _manifest.store(std::move(written));
      return;
    }
    auto data = std::make_shared<Json>(parse_json_text(text));
    auto cleaned = _drop_retired_found_pnl_long_files(_drop_agent_bundle_declaration_files(data));
    // Entries that the filters now drop leave the disk too. The write comes
    // before the Manifest is built: a failed write leaves no manifest.
    // The filters hand back their very input when they remove nothing.
    if (cleaned != data) _write_manifest_json(_data_dir, *cleaned);
    _manifest.store(std::make_shared<Manifest>(cleaned));
  } catch (const std::exception& e) {
    log_warning("Failed to load manifest from disk: %s", {e});
    _manifest.store(nullptr);
  }
}

void SyncManager::_load_vocabulary() {
  _vocabulary.store(nullptr);
  const std::shared_ptr<Manifest> manifest = _manifest.load();
  if (!manifest) return;
  try {
    _vocabulary.store(std::make_shared<const Vocabularies>(_validate_manifest_vocabulary_files(_data_dir, *manifest)));
  } catch (const std::exception& e) {
    log_warning("Failed to load vocabulary from disk: %s", {e});
  }
}

void SyncManager::_set_get_token(TokenSource get_token) {
  std::lock_guard<std::mutex> lock(token_mu_);
  _get_token = std::move(get_token);
}

std::string SyncManager::_fresh_token() {
  TokenSource source;
  {
    std::lock_guard<std::mutex> lock(token_mu_);
    source = _get_token;
  }
  // Asked for every request: tokens rotate.
  return source();
}

HttpResponse SyncManager::_http_get(const std::string& url, std::int64_t range_start, std::int64_t range_end,
                                    const BodySink* sink) {
  return sync::_http_get(url, _fresh_token(), range_start, range_end, sink);
}

HttpRequest SyncManager::_download_request(const std::string& url, bool public_download, const BodySink* sink) {
  return public_download ? _http_get_public_request(url, 0, -1, sink)
                         : _http_get_request(url, _fresh_token(), 0, -1, sink);
}

HttpResponse SyncManager::_http_get_public(const std::string& url, std::int64_t range_start,
                                           std::int64_t range_end, const BodySink* sink) {
  return sync::_http_get_public(url, range_start, range_end, sink);
}

bool SyncManager::is_alive() const {
  const auto thread = _sync_thread.load();
  return thread && thread->is_alive();
}

std::optional<std::string> SyncManager::status() const {
  const auto message = _status_message.load();
  return message ? std::optional<std::string>(*message) : std::nullopt;
}

std::shared_ptr<Manifest> SyncManager::get_manifest() const { return _manifest.load(); }

}  // namespace quillmarsh::sync
