#include "sync/engine/file_primitives.h"

#include <algorithm>
#include <vector>

#include <openssl/evp.h>

#include "sync/engine/tunables.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"

namespace quillmarsh::sync {

struct Sha256Hasher::Context {
  EVP_MD_CTX* md = nullptr;
};

namespace {

// Fetched once: naming the algorithm at every file would look it up again,
// under libcrypto's locks, for each of a hundred thousand small files.
const EVP_MD* sha256_algorithm() {
  static EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  return fetched != nullptr ? fetched : EVP_sha256();
}

}  // namespace

Sha256Hasher::Sha256Hasher() : ctx_(std::make_unique<Context>()) {
  ctx_->md = EVP_MD_CTX_new();
  if (ctx_->md == nullptr || EVP_DigestInit_ex(ctx_->md, sha256_algorithm(), nullptr) != 1) {
    EVP_MD_CTX_free(ctx_->md);
    throw RuntimeError("SHA-256 is not available from libcrypto");
  }
}

Sha256Hasher::~Sha256Hasher() { EVP_MD_CTX_free(ctx_->md); }

void Sha256Hasher::update(std::string_view data) {
  if (!data.empty()) EVP_DigestUpdate(ctx_->md, data.data(), data.size());
}

std::string Sha256Hasher::hexdigest() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(ctx_->md, digest, &length);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(2 * length, '0');
  for (unsigned int i = 0; i < length; ++i) {
    out[2 * i] = kHex[digest[i] >> 4];
    out[2 * i + 1] = kHex[digest[i] & 0xF];
  }
  return out;
}

std::string _sha256(std::string_view data) {
  Sha256Hasher hasher;
  hasher.update(data);
  return hasher.hexdigest();
}

std::string _sha256_file(const std::string& filepath, std::size_t chunk_bytes) {
  if (chunk_bytes == 0) chunk_bytes = _SYNC_HASH_FILE_CHUNK_BYTES;
  ReadableFile file(filepath);
  // A small file needs no 8 MiB buffer; one read past its end is enough.
  const std::size_t known = static_cast<std::size_t>(file.size());
  std::vector<char> chunk(std::min(chunk_bytes, std::max<std::size_t>(known + 1, 4096)));
  Sha256Hasher hasher;
  while (const std::size_t got = file.read(chunk.data(), chunk.size())) {
    hasher.update(std::string_view(chunk.data(), got));
  }
  return hasher.hexdigest();
}

void _atomic_write(const std::string& filepath, std::string_view data) {
  const std::string tmp_path = filepath + ".tmp";
  const std::string directory = dir_name(filepath);
  if (!directory.empty()) make_dirs(directory);
  write_file(tmp_path, data);
  rename_file(tmp_path, filepath);
}

}  // namespace quillmarsh::sync
