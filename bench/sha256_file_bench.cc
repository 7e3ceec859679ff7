// Hashes one large file with _sha256_file and with `openssl dgst -sha256`,
// alternately, and prints the best throughput of each and their ratio.
//
//   bench_sha256_file [--size-mib N] [--rounds R] [--dir DIR]
//
// The file is written once and read from the page cache by both sides, so
// the comparison is of hashing and reading, not of the disk.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include "sync/engine/file_primitives.h"
#include "sync/support/posix_file.h"

namespace qs = quillmarsh::sync;

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void write_test_file(const std::string& path, std::size_t size) {
  std::string block(8 << 20, '\0');
  std::uint64_t x = 0x9E3779B97F4A7C15ull;
  for (char& c : block) {  // cheap pseudo-random bytes
    x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    c = static_cast<char>(x);
  }
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) {
    std::perror(path.c_str());
    std::exit(1);
  }
  for (std::size_t done = 0; done < size; done += block.size()) {
    std::fwrite(block.data(), 1, std::min(block.size(), size - done), f);
  }
  std::fclose(f);
}

std::string run_openssl(const std::string& path) {
  const std::string cmd = "openssl dgst -sha256 -r '" + path + "'";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return "";
  char buf[256] = {0};
  std::string out = std::fgets(buf, sizeof buf, p) ? buf : "";
  pclose(p);
  return out.substr(0, 64);
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t size_mib = 1024;
  int rounds = 3;
  std::string dir = "/tmp";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--size-mib") size_mib = std::strtoul(argv[i + 1], nullptr, 10);
    else if (flag == "--rounds") rounds = std::atoi(argv[i + 1]);
    else if (flag == "--dir") dir = argv[i + 1];
  }
  const std::size_t size = size_mib << 20;
  const std::string path = dir + "/qmsync-bench-sha256-" + std::to_string(getpid()) + ".bin";
  write_test_file(path, size);
  (void)qs::_sha256_file(path);  // warm the page cache

  double best_ours = 1e9, best_peer = 1e9;
  std::string ours, peer;
  for (int r = 0; r < rounds; ++r) {
    auto t = std::chrono::steady_clock::now();
    ours = qs::_sha256_file(path);
    best_ours = std::min(best_ours, seconds_since(t));
    t = std::chrono::steady_clock::now();
    peer = run_openssl(path);
    best_peer = std::min(best_peer, seconds_since(t));
  }
  qs::remove_file(path);

  const double mb = static_cast<double>(size) / 1e6;
  std::printf("file: %zu MiB, best of %d rounds\n", size_mib, rounds);
  std::printf("_sha256_file          %8.1f MB/s\n", mb / best_ours);
  std::printf("openssl dgst -sha256  %8.1f MB/s\n", mb / best_peer);
  std::printf("ratio (ours / openssl): %.3f  (target >= 0.95)\n", best_peer / best_ours);
  if (ours != peer) {
    std::printf("DIGESTS DIFFER: %s vs %s\n", ours.c_str(), peer.c_str());
    return 1;
  }
  return 0;
}
