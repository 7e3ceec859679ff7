#include "server/certificates.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <functional>
#include <memory>
#include <utility>

#include "sync/errors.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync::server {
namespace {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* p) const { Free(p); }
};
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using CertPtr = std::unique_ptr<X509, Deleter<X509_free>>;
using BioPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;

[[noreturn]] void fail(const std::string& what) {
  char reason[256] = "unknown reason";
  if (const unsigned long code = ERR_get_error()) ERR_error_string_n(code, reason, sizeof reason);
  ERR_clear_error();
  throw RuntimeError("cannot make TLS certificates: " + what + ": " + reason);
}

void check(int ok, const char* what) {
  if (ok != 1) fail(what);
}

KeyPtr new_key() {
  KeyPtr key(EVP_EC_gen("P-256"));
  if (!key) fail("EC key generation");
  return key;
}

void add_extension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  if (ext == nullptr) fail(value);
  const int ok = X509_add_ext(cert, ext, -1);
  X509_EXTENSION_free(ext);
  check(ok, value);
}

// A certificate for `key` named `common_name`, valid from an hour ago for
// ten years; self-signed when `issuer` is null.
CertPtr new_certificate(EVP_PKEY* key, const char* common_name, X509* issuer) {
  CertPtr cert(X509_new());
  if (!cert) fail("X509_new");
  check(X509_set_version(cert.get(), 2), "version");
  unsigned char serial[16];
  check(RAND_bytes(serial, sizeof serial), "serial");
  serial[0] &= 0x7f;  // positive
  BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
  if (bn == nullptr || BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get())) == nullptr) {
    BN_free(bn);
    fail("serial");
  }
  BN_free(bn);
  X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
  X509_gmtime_adj(X509_getm_notAfter(cert.get()), 10L * 365 * 24 * 3600);
  check(X509_set_pubkey(cert.get(), key), "public key");
  X509_NAME* name = X509_get_subject_name(cert.get());
  check(X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("qmsync reference server"), -1, -1, 0),
        "subject");
  check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(common_name),
                                   -1, -1, 0),
        "subject");
  check(X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : name), "issuer");
  return cert;
}

std::string pem_of(const std::function<int(BIO*)>& write) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!bio) fail("BIO_new");
  check(write(bio.get()), "PEM encoding");
  char* data = nullptr;
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

}  // namespace

TlsFiles ensure_tls_files(const std::string& dir) {
  TlsFiles files{join_path(dir, "ca.pem"), join_path(dir, "server.pem"), join_path(dir, "server-key.pem")};
  if (path_exists(files.ca_file) && path_exists(files.cert_file) && path_exists(files.key_file)) return files;

  KeyPtr ca_key = new_key();
  CertPtr ca = new_certificate(ca_key.get(), "qmsync reference CA", nullptr);
  add_extension(ca.get(), ca.get(), NID_basic_constraints, "critical,CA:TRUE");
  add_extension(ca.get(), ca.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
  add_extension(ca.get(), ca.get(), NID_subject_key_identifier, "hash");
  if (X509_sign(ca.get(), ca_key.get(), EVP_sha256()) == 0) fail("signing the CA");

  KeyPtr key = new_key();
  CertPtr cert = new_certificate(key.get(), "localhost", ca.get());
  add_extension(cert.get(), ca.get(), NID_basic_constraints, "critical,CA:FALSE");
  add_extension(cert.get(), ca.get(), NID_key_usage, "critical,digitalSignature,keyEncipherment");
  add_extension(cert.get(), ca.get(), NID_ext_key_usage, "serverAuth");
  add_extension(cert.get(), ca.get(), NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1,IP:::1");
  add_extension(cert.get(), ca.get(), NID_authority_key_identifier, "keyid:always");
  if (X509_sign(cert.get(), ca_key.get(), EVP_sha256()) == 0) fail("signing the server certificate");

  make_dirs(dir);
  // The CA's key is not kept: a new pair is made whenever one is missing.
  // The server certificate goes last, so that its presence means the rest.
  write_private_file(files.key_file, pem_of([&](BIO* b) {
                       return PEM_write_bio_PrivateKey(b, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
                     }));
  write_file(files.ca_file, pem_of([&](BIO* b) { return PEM_write_bio_X509(b, ca.get()); }));
  write_file(files.cert_file, pem_of([&](BIO* b) { return PEM_write_bio_X509(b, cert.get()); }));
  files.created = true;
  return files;
}

}  // namespace quillmarsh::sync::server
