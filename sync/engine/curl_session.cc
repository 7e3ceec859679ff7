#include "sync/engine/curl_session.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>

#include <strings.h>

#include <curl/curl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "sync/support/text.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync {
namespace {

using Clock = std::chrono::steady_clock;

// libcurl's global state is set up once, while the library loads and before
// any thread of ours exists, and is never torn down.
const bool kCurlReady = [] { return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; }();

// Extra trusted certificates, shared by every thread's handles.
struct ExtraCa {
  std::vector<X509*> certs;
  ~ExtraCa() {
    for (X509* cert : certs) X509_free(cert);
  }
};

// What the threads' handles share: TLS sessions, so that each worker after
// the first resumes a session instead of a full handshake, and name
// look-ups. One per trust setting: a session made under one set of trusted
// certificates must never be resumed under another.
class SharedState {
 public:
  SharedState() : share_(curl_share_init()) {
    if (share_ == nullptr) return;
    curl_share_setopt(share_, CURLSHOPT_LOCKFUNC, lock);
    curl_share_setopt(share_, CURLSHOPT_UNLOCKFUNC, unlock);
    curl_share_setopt(share_, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    curl_share_setopt(share_, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
  }
  ~SharedState() {
    if (share_ != nullptr) curl_share_cleanup(share_);
  }
  SharedState(const SharedState&) = delete;
  SharedState& operator=(const SharedState&) = delete;
  CURLSH* handle() const { return share_; }

 private:
  static void lock(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<SharedState*>(user)->mu_[slot(data)].lock();
  }
  static void unlock(CURL*, curl_lock_data data, void* user) {
    static_cast<SharedState*>(user)->mu_[slot(data)].unlock();
  }
  static std::size_t slot(curl_lock_data data) {
    return static_cast<std::size_t>(data) < kSlots ? static_cast<std::size_t>(data) : 0;
  }
  static constexpr std::size_t kSlots = CURL_LOCK_DATA_LAST;
  CURLSH* share_;
  std::mutex mu_[kSlots];
};

// The system's bundle, read only as far as a verification needs it. Each
// certificate's subject is read once, which decodes no key; a certificate is
// decoded whole only when a chain asks for its subject. Decoding the whole
// bundle up front costs some 30 ms under OpenSSL 3, mostly in public keys,
// where a chain needs one or two certificates, and none when the extra
// certificates vouch for the server.
class LazyBundle {
 public:
  explicit LazyBundle(std::string path) : path_(std::move(path)) {}
  LazyBundle(const LazyBundle&) = delete;
  LazyBundle& operator=(const LazyBundle&) = delete;

  // Puts every certificate of the bundle whose subject is `name` into
  // `store`; returns the first of them, or null.
  X509* add_matches(X509_STORE* store, const X509_NAME* name) {
    std::call_once(indexed_, [this] { index(); });
    std::lock_guard<std::mutex> lock(mu_);
    X509* first = nullptr;
    for (Entry& entry : entries_) {
      if (X509_NAME_cmp(entry.subject.get(), name) != 0) continue;
      if (entry.cert == nullptr) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(entry.der.data());
        const long n = static_cast<long>(entry.der.size());
        entry.cert.reset(entry.trusted_form ? d2i_X509_AUX(nullptr, &p, n) : d2i_X509(nullptr, &p, n));
        if (entry.cert == nullptr) continue;
        // Filled now, under the lock: OpenSSL fills this cache lazily, without one.
        X509_check_purpose(entry.cert.get(), -1, 0);
      }
      // A certificate the store holds already is no failure.
      X509_STORE_add_cert(store, entry.cert.get());
      if (first == nullptr) first = entry.cert.get();
    }
    ERR_clear_error();
    return first;
  }

 private:
  struct Entry {
    std::string der;
    bool trusted_form = false;  // "TRUSTED CERTIFICATE": trust settings follow the certificate
    std::unique_ptr<X509_NAME, decltype(&X509_NAME_free)> subject{nullptr, &X509_NAME_free};
    std::unique_ptr<X509, decltype(&X509_free)> cert{nullptr, &X509_free};
  };

  // The certificates' encodings and subjects, in the bundle's order. A file
  // that cannot be read adds nothing: a handshake then fails for want of
  // trust, never succeeds without it.
  void index() {
    std::string text;
    try {
      text = read_file(path_);
    } catch (const std::exception&) {
      return;
    }
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())),
                                                   &BIO_free);
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* data = nullptr;
    long len = 0;
    while (bio && PEM_read_bio(bio.get(), &name, &header, &data, &len) == 1) {
      const std::string_view kind(name);
      Entry entry;
      entry.trusted_form = kind == PEM_STRING_X509_TRUSTED;
      if (kind == PEM_STRING_X509 || kind == PEM_STRING_X509_OLD || entry.trusted_form) {
        entry.der.assign(reinterpret_cast<const char*>(data), static_cast<std::size_t>(len));
        entry.subject.reset(subject_of(entry.der));
        if (entry.subject) entries_.push_back(std::move(entry));
      }
      OPENSSL_free(name);
      OPENSSL_free(header);
      OPENSSL_free(data);
    }
    ERR_clear_error();
  }

  // The subject of an encoded certificate, read by walking the outer
  // structure: Certificate and TBSCertificate, then past the optional
  // version, the serial number, the signature algorithm, the issuer and the
  // validity.
  static X509_NAME* subject_of(const std::string& der) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    const unsigned char* const end = p + der.size();
    long len = 0;
    int tag = 0;
    int xclass = 0;
    auto enter = [&] {
      return (ASN1_get_object(&p, &len, &tag, &xclass, end - p) & 0x80) == 0 && tag == V_ASN1_SEQUENCE;
    };
    auto skip = [&] {
      if ((ASN1_get_object(&p, &len, &tag, &xclass, end - p) & 0x80) != 0 || len > end - p) return false;
      p += len;
      return true;
    };
    if (!enter() || !enter()) return nullptr;
    const unsigned char* field = p;
    if ((ASN1_get_object(&field, &len, &tag, &xclass, end - p) & 0x80) == 0 && xclass == V_ASN1_CONTEXT_SPECIFIC &&
        tag == 0 && !skip()) {
      return nullptr;
    }
    for (int i = 0; i < 4; ++i) {
      if (!skip()) return nullptr;
    }
    return d2i_X509_NAME(nullptr, &p, end - p);
  }

  const std::string path_;
  std::once_flag indexed_;
  std::mutex mu_;
  std::vector<Entry> entries_;
};

// The look-up a store makes for a subject its own certificates lack. The
// caller takes its own reference on what `ret` holds, as it would on one of
// the store's entries: this one only lends it, the store keeping its own.
int look_up_in_bundle(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* ret) {
  if (type != X509_LU_X509) return 0;
  auto* bundle = static_cast<LazyBundle*>(X509_LOOKUP_get_method_data(lookup));
  X509* first = bundle->add_matches(X509_LOOKUP_get_store(lookup), name);
  if (first == nullptr || X509_OBJECT_set1_X509(ret, first) != 1) return 0;
  X509_free(first);
  return 1;
}

X509_LOOKUP_METHOD* bundle_lookup_method() {
  static X509_LOOKUP_METHOD* method = [] {
    X509_LOOKUP_METHOD* m = X509_LOOKUP_meth_new("quillmarsh system bundle");
    if (m != nullptr) X509_LOOKUP_meth_set_get_by_subject(m, look_up_in_bundle);
    return m;
  }();
  return method;
}

// The certificates a handshake trusts: the extra ones, then the system's
// bundle and directory where libcurl would look for them.
class TrustStore {
 public:
  explicit TrustStore(std::shared_ptr<const ExtraCa> extra_ca)
      : extra_ca_(std::move(extra_ca)), id_(next_id_.fetch_add(1) + 1) {}
  TrustStore(const TrustStore&) = delete;
  TrustStore& operator=(const TrustStore&) = delete;

  // This thread's store, built on its first use here from the locations
  // `easy` would use. OpenSSL changes a store's lists while verifying against
  // it, so a store is never shared between threads; the certificates in it,
  // which nothing changes, are.
  X509_STORE* get(CURL* easy) const {
    thread_local ThreadCopy copy;
    if (copy.id != id_) {
      copy.reset(nullptr, nullptr);
      std::shared_ptr<LazyBundle> bundle;
      X509_STORE* store = build(easy, bundle);
      copy.reset(store, std::move(bundle));
      copy.id = id_;
    }
    return copy.store;
  }

 private:
  struct ThreadCopy {
    std::uint64_t id = 0;
    X509_STORE* store = nullptr;
    // What the store's look-up reads, kept while the store is.
    std::shared_ptr<LazyBundle> bundle;
    void reset(X509_STORE* next, std::shared_ptr<LazyBundle> next_bundle) {
      if (store != nullptr) X509_STORE_free(store);  // connections hold their own references
      store = next;
      bundle = std::move(next_bundle);
    }
    ~ThreadCopy() { reset(nullptr, nullptr); }
  };

  // The bundle at `path`, read at most once under this trust setting.
  std::shared_ptr<LazyBundle> bundle_at(const std::string& path) const {
    std::lock_guard<std::mutex> lock(bundle_mu_);
    if (!bundle_ || bundle_path_ != path) {
      bundle_ = std::make_shared<LazyBundle>(path);
      bundle_path_ = path;
    }
    return bundle_;
  }

  X509_STORE* build(CURL* easy, std::shared_ptr<LazyBundle>& bundle) const {
    char* ca_file = nullptr;
    char* ca_path = nullptr;
    curl_easy_getinfo(easy, CURLINFO_CAINFO, &ca_file);
    curl_easy_getinfo(easy, CURLINFO_CAPATH, &ca_path);
    // Where a system keeps them elsewhere, it says so as for any OpenSSL program.
    if (const char* file = std::getenv(X509_get_default_cert_file_env()); file != nullptr && *file != 0) {
      ca_file = const_cast<char*>(file);
    }
    if (const char* dir = std::getenv(X509_get_default_cert_dir_env()); dir != nullptr && *dir != 0) {
      ca_path = const_cast<char*>(dir);
    }
    X509_STORE* store = X509_STORE_new();
    if (store == nullptr) return nullptr;
    if (extra_ca_) {
      for (X509* cert : extra_ca_->certs) X509_STORE_add_cert(store, cert);
    }
    if (ca_file != nullptr && bundle_lookup_method() != nullptr) {
      if (X509_LOOKUP* lookup = X509_STORE_add_lookup(store, bundle_lookup_method())) {
        bundle = bundle_at(ca_file);
        X509_LOOKUP_set_method_data(lookup, bundle.get());
      }
    }
    // A directory is looked up lazily, per store.
    if (ca_path != nullptr) X509_STORE_load_path(store, ca_path);
    ERR_clear_error();
    // As libcurl sets it on a store of its own: a trusted intermediate suffices.
    X509_STORE_set_flags(store, X509_V_FLAG_PARTIAL_CHAIN);
    return store;
  }

  static inline std::atomic<std::uint64_t> next_id_{0};
  std::shared_ptr<const ExtraCa> extra_ca_;
  const std::uint64_t id_;
  mutable std::mutex bundle_mu_;
  mutable std::shared_ptr<LazyBundle> bundle_;
  mutable std::string bundle_path_;
};

// The certificates trusted now, and the state shared only under them.
struct TrustSetting {
  explicit TrustSetting(std::shared_ptr<const ExtraCa> extra_ca = nullptr)
      : shared(std::make_shared<SharedState>()), store(std::make_shared<TrustStore>(std::move(extra_ca))) {}
  std::shared_ptr<SharedState> shared;
  std::shared_ptr<TrustStore> store;
};

std::mutex g_ca_mu;
TrustSetting g_trust;

TrustSetting current_trust() {
  std::lock_guard<std::mutex> lock(g_ca_mu);
  return g_trust;
}

// Puts the shared store in place of the context's own.
CURLcode use_trust_store(CURL*, void* ssl_ctx, void* store) {
  if (store == nullptr) return CURLE_SSL_CACERT_BADFILE;
  SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(ssl_ctx), static_cast<X509_STORE*>(store));
  return CURLE_OK;
}


// The handles of one thread. A multi handle owns the connection cache, and
// driving the transfer ourselves lets us time silences precisely.
struct ThreadHandles {
  CURL* easy = curl_easy_init();
  CURLM* multi = curl_multi_init();
  // The shared state `easy` is attached to, kept alive while it is.
  std::shared_ptr<SharedState> attached;
  ~ThreadHandles() {
    curl_multi_cleanup(multi);
    curl_easy_cleanup(easy);  // detaches from `attached` before it can go
  }
};

ThreadHandles& thread_handles() {
  thread_local ThreadHandles handles;
  if (!kCurlReady || handles.easy == nullptr || handles.multi == nullptr) {
    throw RuntimeError("libcurl could not be initialised");
  }
  return handles;
}

struct Exchange {
  OpenedResponse response;
  const BodySink* sink = nullptr;
  bool connected = false;
  bool head_complete = false;
  bool head_handled = false;
  int head_status = 0;
  std::int64_t content_length = -1;
  // A failure of the sink, which libcurl's C callbacks cannot carry.
  std::exception_ptr sink_failure;
  Clock::time_point last_activity = Clock::now();
};

// Once per exchange, when the final head is in: the body goes to the sink,
// or into memory, reserved up to a bound as the head announces it.
void on_final_head(Exchange& ex) {
  if (ex.head_handled) return;
  ex.head_handled = true;
  if (ex.sink != nullptr) {
    try {
      ex.response.streamed = ex.sink->accepts(ex.head_status);
    } catch (...) {
      ex.sink_failure = std::current_exception();
    }
  }
  // A hint only; never trust a server with an unbounded reservation.
  if (!ex.response.streamed && ex.content_length > 0) {
    ex.response.body.reserve(static_cast<size_t>(std::min<std::int64_t>(ex.content_length, 256 << 20)));
  }
}

std::string_view trim_line(std::string_view s) {
  while (!s.empty() && (s.back() == '\r' || s.back() == '\n')) s.remove_suffix(1);
  return s;
}

bool has_location(const std::map<std::string, std::string>& headers) {
  for (const auto& [name, value] : headers) {
    if (name.size() == 8 && strncasecmp(name.c_str(), "location", 8) == 0) return true;
  }
  return false;
}

size_t on_header(char* data, size_t size, size_t count, void* user) {
  auto* ex = static_cast<Exchange*>(user);
  const size_t n = size * count;
  ex->last_activity = Clock::now();
  const std::string_view line = trim_line(std::string_view(data, n));
  if (line.starts_with("HTTP/")) {
    // A new response head: a redirect or an interim response came before.
    ex->response.headers.clear();
    ex->response.body.clear();
    ex->head_complete = false;
    ex->head_status = 0;
    ex->content_length = -1;
    const size_t space = line.find(' ');
    if (space != std::string_view::npos) {
      const std::string_view code = line.substr(space + 1, 3);
      std::from_chars(code.data(), code.data() + code.size(), ex->head_status);
    }
  } else if (line.empty()) {
    // The head ends here, unless libcurl goes on to a redirect's target or
    // past an interim response.
    const bool interim = ex->head_status >= 100 && ex->head_status < 200;
    const bool followed = ex->head_status >= 300 && ex->head_status < 400 && has_location(ex->response.headers);
    if (!interim && !followed) {
      ex->head_complete = true;
      on_final_head(*ex);
    }
  } else if (const size_t colon = line.find(':'); colon != std::string_view::npos) {
    const std::string name(line.substr(0, colon));
    const std::string value(strip(line.substr(colon + 1)));
    if (strcasecmp(name.c_str(), "Content-Length") == 0) {
      std::from_chars(value.data(), value.data() + value.size(), ex->content_length);
    }
    ex->response.headers[name] = value;
  }
  return n;
}

size_t on_body(char* data, size_t size, size_t count, void* user) {
  auto* ex = static_cast<Exchange*>(user);
  const size_t n = size * count;
  ex->last_activity = Clock::now();
  ex->head_complete = true;
  on_final_head(*ex);
  if (ex->sink_failure) return 0;  // ends the transfer with a write error
  if (!ex->response.streamed) {
    ex->response.body.append(data, n);
    return n;
  }
  try {
    ex->sink->write(std::string_view(data, n));
  } catch (...) {
    ex->sink_failure = std::current_exception();
    return 0;
  }
  return n;
}

int on_connected(void* user, char*, char*, int, int) {
  auto* ex = static_cast<Exchange*>(user);
  ex->connected = true;
  ex->last_activity = Clock::now();
  return CURL_PREREQFUNC_OK;
}

curl_slist* header_list(const HttpRequest& request) {
  curl_slist* list = nullptr;
  for (const auto& [name, value] : request.headers) {
    list = curl_slist_append(list, (name + ": " + value).c_str());
  }
  return list;
}

// TLS 1.3 suites in order of preference: AES-128-GCM first, as browsers
// offer it, since it is the cheapest per byte on machines with AES
// instructions and no weaker in practice.
constexpr const char* kTls13Suites = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

void set_options(CURL* easy, std::shared_ptr<SharedState>& attached, const HttpRequest& request,
                 curl_slist* headers, Exchange& ex, double timeout_s, const TrustSetting& trust,
                 char* error_buffer) {
  curl_easy_reset(easy);  // keeps live connections and the TLS session cache
  curl_easy_setopt(easy, CURLOPT_URL, request.full_url.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, std::max(1L, static_cast<long>(timeout_s * 1000)));
  // Pieces small enough to be hashed and written while still in cache.
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, 256L * 1024);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(easy, CURLOPT_TLS13_CIPHERS, kTls13Suites);
  if (trust.shared->handle() != nullptr) curl_easy_setopt(easy, CURLOPT_SHARE, trust.shared->handle());
  // Only now may the state the handle was attached to before go.
  attached = trust.shared;
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, error_buffer);
  // Through a proxy, the tunnel's "200 Connection established" is not the
  // server's answer: only the final response's head may end the wait for it.
  curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, on_header);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &ex);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, on_body);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &ex);
  curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, on_connected);
  curl_easy_setopt(easy, CURLOPT_PREREQDATA, &ex);
  // No file for libcurl to parse: the thread's store stands in for it. And no
  // store cached by libcurl either, which would put itself back in place of
  // ours and outlive a change of the trust setting.
  X509_STORE* store = trust.store->get(easy);
  curl_easy_setopt(easy, CURLOPT_CA_CACHE_TIMEOUT, 0L);
  curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
  curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, use_trust_store);
  curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, store);
}

double bounded_timeout(double timeout_s) {
  if (std::isnan(timeout_s)) throw ValueError("Invalid value NaN (not a number)");
  return std::min(timeout_s, 1e7);  // beyond any wait worth having
}

// How long a connected exchange may still stay silent; nothing before the
// connection is made, which libcurl's own connect timeout bounds.
std::optional<Clock::duration> silence_left(const Exchange& ex, double timeout_s) {
  if (!ex.connected) return std::nullopt;
  const auto timeout = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(timeout_s));
  return ex.last_activity + timeout - Clock::now();
}

// Drives the transfer; returns libcurl's result, or nothing when the server
// stayed silent for `timeout_s` after the connection was made.
std::optional<CURLcode> drive(ThreadHandles& handles, Exchange& ex, double timeout_s) {
  curl_multi_add_handle(handles.multi, handles.easy);
  std::optional<CURLcode> result;
  for (;;) {
    int running = 0;
    if (curl_multi_perform(handles.multi, &running) != CURLM_OK) {
      result = CURLE_FAILED_INIT;
      break;
    }
    if (running == 0) {
      int queued = 0;
      result = CURLE_OK;
      while (CURLMsg* msg = curl_multi_info_read(handles.multi, &queued)) {
        if (msg->msg == CURLMSG_DONE) result = msg->data.result;
      }
      break;
    }
    int wait_ms = 1000;
    if (const std::optional<Clock::duration> left = silence_left(ex, timeout_s)) {
      if (*left <= Clock::duration::zero()) break;  // silent too long
      wait_ms = static_cast<int>(std::clamp<std::int64_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(*left).count() + 1, 1, 1000));
    }
    curl_multi_poll(handles.multi, nullptr, 0, wait_ms, nullptr);
  }
  // Removing an unfinished transfer closes its connection.
  curl_multi_remove_handle(handles.multi, handles.easy);
  return result;
}

// What an ended exchange comes to: the response, or the failure the caller
// sees. `result` is libcurl's, or nothing when the server stayed silent.
OpenedResponse conclude(Exchange& ex, CURL* easy, std::optional<CURLcode> result, const char* error_buffer,
                        const std::string& full_url) {
  if (ex.sink_failure) std::rethrow_exception(ex.sink_failure);

  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  ex.response.status = static_cast<int>(status);
  const std::string reason = !result                 ? "timed out"
                             : error_buffer[0] != 0 ? std::string(error_buffer)
                                                     : std::string(curl_easy_strerror(*result));

  if (result && (*result == CURLE_OK || *result == CURLE_TOO_MANY_REDIRECTS)) return std::move(ex.response);
  if (result && (*result == CURLE_URL_MALFORMAT || *result == CURLE_UNSUPPORTED_PROTOCOL)) {
    throw ValueError("unknown url type: " + full_url + " (" + reason + ")");
  }
  if (!ex.connected || (result && *result == CURLE_SEND_ERROR && !ex.head_complete)) {
    throw URLError(reason);
  }
  const bool timed_out = !result || *result == CURLE_OPERATION_TIMEDOUT;
  if (!ex.head_complete) {
    if (timed_out) throw TimeoutError(reason);
    throw ConnectionError(reason);
  }
  // The head is in: whatever went wrong, went wrong reading the body.
  if (*result == CURLE_PARTIAL_FILE) {
    ex.response.partial = true;
    ex.response.read_failure = std::make_exception_ptr(ConnectionError(reason));
  } else if (timed_out) {
    ex.response.read_failure = std::make_exception_ptr(TimeoutError(reason));
  } else {
    ex.response.read_failure = std::make_exception_ptr(ConnectionError(reason));
  }
  return std::move(ex.response);
}

}  // namespace

OpenedResponse open_http_request(const HttpRequest& request, double timeout_s) {
  timeout_s = bounded_timeout(timeout_s);
  ThreadHandles& handles = thread_handles();
  const TrustSetting trust = current_trust();
  if (handles.attached && handles.attached != trust.shared) {
    // Connections verified under another trust setting are not kept.
    curl_multi_cleanup(handles.multi);
    handles.multi = curl_multi_init();
    if (handles.multi == nullptr) throw RuntimeError("libcurl could not be initialised");
  }
  Exchange ex;
  ex.sink = request.sink;
  char error_buffer[CURL_ERROR_SIZE] = {0};
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(header_list(request),
                                                                       &curl_slist_free_all);
  set_options(handles.easy, handles.attached, request, headers.get(), ex, timeout_s, trust, error_buffer);
  const std::optional<CURLcode> result = drive(handles, ex, timeout_s);
  return conclude(ex, handles.easy, result, error_buffer, request.full_url);
}

// --- TransferLoop -------------------------------------------------------------

struct TransferLoop::Pinned {
  TrustSetting trust;
};

struct TransferLoop::Transfer {
  CURL* easy = nullptr;
  std::shared_ptr<SharedState> attached;
  Exchange ex;
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers{nullptr, &curl_slist_free_all};
  char error_buffer[CURL_ERROR_SIZE] = {0};
  std::string full_url;
  double timeout_s = 0;
  Done done;
};

TransferLoop::TransferLoop() : multi_(curl_multi_init()) {
  if (!kCurlReady || multi_ == nullptr) throw RuntimeError("libcurl could not be initialised");
}

TransferLoop::~TransferLoop() {
  // Unfinished exchanges end with their connections; nobody is told.
  for (auto& transfer : running_) {
    curl_multi_remove_handle(multi_, transfer->easy);
    curl_easy_cleanup(transfer->easy);  // detaches from `attached` before it can go
  }
  running_.clear();
  for (auto& transfer : idle_) curl_easy_cleanup(transfer->easy);
  idle_.clear();
  curl_multi_cleanup(multi_);
}

void TransferLoop::start(const HttpRequest& request, double timeout_s, Done done) {
  timeout_s = bounded_timeout(timeout_s);
  std::unique_ptr<Transfer> transfer;
  if (!idle_.empty()) {
    transfer = std::move(idle_.back());
    idle_.pop_back();
  } else {
    transfer = std::make_unique<Transfer>();
    transfer->easy = curl_easy_init();
    if (transfer->easy == nullptr) throw RuntimeError("libcurl could not be initialised");
  }
  transfer->ex = Exchange{};
  transfer->ex.sink = request.sink;
  transfer->error_buffer[0] = 0;
  transfer->full_url = request.full_url;
  transfer->timeout_s = timeout_s;
  transfer->done = std::move(done);
  transfer->headers.reset(header_list(request));
  // A loop lives for one batch: it keeps the trust setting it began with.
  if (!trust_) trust_ = std::make_unique<Pinned>(Pinned{current_trust()});
  set_options(transfer->easy, transfer->attached, request, transfer->headers.get(), transfer->ex, timeout_s,
              trust_->trust, transfer->error_buffer);
  curl_easy_setopt(transfer->easy, CURLOPT_PRIVATE, transfer.get());
  if (curl_multi_add_handle(multi_, transfer->easy) != CURLM_OK) {
    idle_.push_back(std::move(transfer));
    throw RuntimeError("libcurl could not start a transfer");
  }
  running_.push_back(std::move(transfer));
}

void TransferLoop::end(Transfer* transfer, int code) {
  std::optional<CURLcode> result;
  if (code != kSilent) result = static_cast<CURLcode>(code);
  curl_multi_remove_handle(multi_, transfer->easy);
  const auto it = std::find_if(running_.begin(), running_.end(), [&](const auto& t) { return t.get() == transfer; });
  std::unique_ptr<Transfer> owned = std::move(*it);
  running_.erase(it);
  Done done = std::move(owned->done);
  OpenedResponse response;
  std::exception_ptr failure;
  try {
    response = conclude(owned->ex, owned->easy, result, owned->error_buffer, owned->full_url);
  } catch (...) {
    failure = std::current_exception();
  }
  owned->headers.reset();
  idle_.push_back(std::move(owned));
  done(std::move(response), failure);
}

void TransferLoop::run(int max_wait_ms) {
  if (running_.empty()) return;
  int still_running = 0;
  if (curl_multi_perform(multi_, &still_running) != CURLM_OK) {
    while (!running_.empty()) end(running_.front().get(), static_cast<int>(CURLE_FAILED_INIT));
    return;
  }
  int queued = 0;
  bool ended = false;
  while (CURLMsg* msg = curl_multi_info_read(multi_, &queued)) {
    if (msg->msg != CURLMSG_DONE) continue;
    Transfer* transfer = nullptr;
    curl_easy_getinfo(msg->easy_handle, CURLINFO_PRIVATE, &transfer);
    end(transfer, static_cast<int>(msg->data.result));
    ended = true;
  }
  // Silent too long: ended here, as a single exchange would be.
  int wait_ms = std::max(max_wait_ms, 0);
  for (std::size_t i = 0; i < running_.size();) {
    const std::optional<Clock::duration> left = silence_left(running_[i]->ex, running_[i]->timeout_s);
    if (left && *left <= Clock::duration::zero()) {
      end(running_[i].get(), kSilent);
      ended = true;
      continue;
    }
    if (left) {
      wait_ms = static_cast<int>(std::clamp<std::int64_t>(
          std::chrono::duration_cast<std::chrono::milliseconds>(*left).count() + 1, 1, wait_ms));
    }
    ++i;
  }
  if (ended || running_.empty() || wait_ms == 0) return;
  curl_multi_poll(multi_, nullptr, 0, wait_ms, nullptr);
}

void set_extra_ca_file(const std::optional<std::string>& pem_path) {
  std::shared_ptr<ExtraCa> loaded;
  if (pem_path) {
    const std::string pem = read_file(*pem_path);
    loaded = std::make_shared<ExtraCa>();
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())),
                                                   &BIO_free);
    while (X509* cert = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
      // Fills the certificate's cached extensions now, on one thread: the
      // certificates are shared by every handshake, and OpenSSL fills that
      // cache lazily without a lock when two threads verify at once.
      X509_check_purpose(cert, -1, 0);
      loaded->certs.push_back(cert);
    }
    if (loaded->certs.empty()) {
      throw ValueError("No PEM certificate found in CA file " + *pem_path);
    }
  }
  std::lock_guard<std::mutex> lock(g_ca_mu);
  g_trust = TrustSetting{std::move(loaded)};
}

}  // namespace quillmarsh::sync
