#include "tests/crash/served_world.h"

#include "server/publisher.h"
#include "server/server_root.h"
#include "sync/engine/file_primitives.h"
#include "sync/support/posix_file.h"

#ifndef QMSYNC_BINARY
#error "QMSYNC_BINARY must name the built qmsync"
#endif

namespace quillmarsh::sync::testing {
namespace {

const std::string kToken = "world-token";

bool is_vocabulary(const std::string& path) { return path.ends_with("/vocabulary.json"); }

void add_vocabularies(Published& p) {
  for (const std::string universe : {"equities", "futures"}) {
    p.files["features/" + universe + "/vocabulary.json"] = vocabulary_text(p.era, universe);
  }
}

}  // namespace

ServedWorld::ServedWorld(std::uint32_t seed, int large_files, int small_files)
    : api_(tmp_ / "root", kToken), store_(tmp_ / "root"), rng_(seed) {
  make_dirs(tmp_ / "root");
  write_file(tmp_ / "token", kToken + "\n");
  Published p{1, 1};
  for (int i = 0; i < large_files; ++i) {
    p.files["large/part-" + std::to_string(next_file_++) + ".bin"] = fresh_bytes((1 << 20) + rng_() % (1 << 20));
  }
  for (int i = 0; i < small_files; ++i) {
    p.files["small/" + std::to_string(i % 4) + "/item-" + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(1 + rng_() % (40 << 10));
  }
  p.files["small/empty.txt"] = "";
  add_vocabularies(p);
  publish(std::move(p));
}

Published ServedWorld::publish_next_version(int added_files) {
  // Within an era a published file keeps its bytes: a version adds files and
  // drops one, and only a new era changes what a path holds.
  Published p = current();
  p.version += 1;
  std::vector<std::string> data_paths;
  for (const auto& [path, bytes] : p.files) {
    if (!is_vocabulary(path) && !bytes.empty()) data_paths.push_back(path);
  }
  if (data_paths.size() > 2) p.files.erase(data_paths[rng_() % data_paths.size()]);
  for (int i = 0; i < added_files; ++i) {
    const bool large = rng_() % 4 == 0;
    p.files[(large ? "large/new-" : "small/new/item-") + std::to_string(next_file_++) + ".bin"] =
        fresh_bytes(large ? (1 << 20) + rng_() % (1 << 20) : 1 + rng_() % (20 << 10));
  }
  return publish(std::move(p));
}

Published ServedWorld::publish_next_era() {
  Published p = current();
  p.era += 1;
  p.version = 1;
  for (auto& [path, bytes] : p.files) {
    if (!is_vocabulary(path) && !bytes.empty() && rng_() % 2) bytes = fresh_bytes(bytes.size());
  }
  add_vocabularies(p);
  return publish(std::move(p));
}

Published ServedWorld::current() const {
  std::lock_guard<std::mutex> lock(mu_);
  return current_;
}

Published ServedWorld::publish(Published p) {
  // The source holds exactly the new version; the publisher writes the
  // manifest last and names the era served after it.
  const std::string source = tmp_ / "source";
  for (const auto& [path, bytes] : current().files) {
    if (!p.files.contains(path)) remove_file(source + "/" + path);
  }
  for (const auto& [path, bytes] : p.files) {
    make_dirs(dir_name(source + "/" + path));
    write_file(source + "/" + path, bytes);
  }
  p.prefix = "/era_" + std::to_string(p.era);
  server::publish_era({source, tmp_ / "root", p.era, p.version, store_.base_url() + p.prefix, true});
  p.seed = read_file(server::ServerRoot{tmp_ / "root"}.seed_path(p.era));
  std::lock_guard<std::mutex> lock(mu_);
  return current_ = std::move(p);
}

std::vector<std::string> ServedWorld::client(const std::string& data_dir, std::vector<std::string> command) const {
  command.insert(command.begin(), QMSYNC_BINARY);
  command.insert(command.end(), {"--data-dir", data_dir, "--server", api_.base_url(), "--ca-file",
                                 TestServer::ca_file(), "--token-file", tmp_ / "token"});
  return command;
}

}  // namespace quillmarsh::sync::testing
