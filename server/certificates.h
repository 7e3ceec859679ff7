// The reference server's TLS material: a CA of its own and a certificate
// for the loopback names signed by it, made once and kept under the root.
#ifndef QUILLMARSH_SYNC_SERVER_CERTIFICATES_H_
#define QUILLMARSH_SYNC_SERVER_CERTIFICATES_H_

#include <string>

namespace quillmarsh::sync::server {

struct TlsFiles {
  std::string ca_file;    // what clients trust (--ca-file)
  std::string cert_file;  // the server's certificate, for 127.0.0.1, ::1 and localhost
  std::string key_file;   // its private key, readable by the owner alone
  bool created = false;   // made by this call
};

// The files under `dir`, made first when the server certificate or its key
// is missing. Fails with RuntimeError when OpenSSL refuses, OSError when the
// files cannot be written.
TlsFiles ensure_tls_files(const std::string& dir);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_CERTIFICATES_H_
