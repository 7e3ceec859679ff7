#include "server/publisher.h"

#include <openssl/rand.h>

#include <algorithm>
#include <string_view>

#include "server/server_root.h"
#include "sync/artefacts/shuffle_seed.h"
#include "sync/artefacts/vocabulary.h"
#include "sync/engine/file_primitives.h"
#include "sync/errors.h"
#include "sync/manifest.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/json_text.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync::server {
namespace {

// Names a client keeps for its own state in the data directory's top level.
bool reserved_top_level_name(const std::string& name) {
  return name.empty() || name.front() == '.' || name == "manifest.json" || name == "shuffle_seed.enc" ||
         name == "shuffle_seed.enc.meta.json" || _parse_era_directory_id(name).has_value();
}

// Refuses a source file that a client would store elsewhere, delete, or
// confuse with its own state.
void check_publishable(const std::string& rel) {
  const std::string normalised = [&] {
    try {
      return _safe_manifest_relative_path(rel);
    } catch (const ManifestError& e) {
      throw ValueError("cannot publish " + quoted(rel) + ": " + e.what());
    }
  }();
  if (normalised != rel) {
    throw ValueError("cannot publish " + quoted(rel) + ": a client would store it as " + quoted(normalised));
  }
  if (reserved_top_level_name(rel.substr(0, rel.find('/')))) {
    throw ValueError("cannot publish " + quoted(rel) + ": the name is kept for the client's own state");
  }
  if (rel.starts_with("tls/")) {
    throw ValueError("cannot publish " + quoted(rel) + ": tls/ is where the reference server keeps its keys");
  }
  for (std::size_t start = 0; start <= rel.size();) {
    const std::size_t end = std::min(rel.find('/', start), rel.size());
    if (std::string_view(rel).substr(start, end - start).ends_with(".tmp")) {
      throw ValueError("cannot publish " + quoted(rel) + ": clients delete every *.tmp on each pass");
    }
    start = end + 1;
  }
}

// Whether a file holds a PEM private key (PKCS#8, RSA, EC, OpenSSH, ...)
// within its first few kilobytes, where tools put it.
bool holds_private_key(const std::string& path) {
  const std::string head = read_file_range(path, 0, 8192);
  for (std::size_t begin = head.find("-----BEGIN "); begin != std::string::npos;
       begin = head.find("-----BEGIN ", begin + 1)) {
    const std::size_t line_end = std::min(head.find('\n', begin), head.size());
    if (std::string_view(head).substr(begin, line_end - begin).find("PRIVATE KEY-----") != std::string_view::npos) {
      return true;
    }
  }
  return false;
}

struct Copied {
  std::int64_t size = 0;
  std::string sha256;
};

// Copies `from` to `to` by way of a temporary file, hashing as it goes, so
// that a server reading `to` meanwhile sees the old file or the new one.
Copied copy_and_hash(const std::string& from, const std::string& to) {
  make_dirs(dir_name(to));
  const std::string tmp = to + ".tmp";
  write_file(tmp, "");
  Copied copied;
  Sha256Hasher hasher;
  {
    ReadableFile in(from);
    UpdatableFile out(tmp);
    std::string buffer(1 << 20, '\0');
    while (const std::size_t got = in.read(buffer.data(), buffer.size())) {
      const std::string_view chunk(buffer.data(), got);
      hasher.update(chunk);
      out.write(chunk);
      copied.size += static_cast<std::int64_t>(got);
    }
    out.close();
  }
  rename_file(tmp, to);
  copied.sha256 = hasher.hexdigest();
  return copied;
}

// The seed already published for the era, or a new one.
bool ensure_seed(const std::string& seed_path) {
  if (path_exists(seed_path)) {
    try {
      _validate_shuffle_seed_bytes(read_file(seed_path));
      return false;
    } catch (const SyncError&) {
      // Replaced below.
    }
  }
  std::string seed(kShuffleSeedBytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(seed.data()), static_cast<int>(seed.size())) != 1) {
    throw RuntimeError("cannot make a shuffle seed: no random bytes");
  }
  _validate_shuffle_seed_bytes(seed);
  _atomic_write(seed_path, seed);
  return true;
}

}  // namespace

PublishReport publish_era(const PublishRequest& request) {
  if (!is_directory(request.source_dir)) {
    throw ValueError("source is not a directory: " + quoted(request.source_dir));
  }
  if (request.era_id < 0 || request.version < 0) throw ValueError("era and version must not be negative");
  const std::string source = resolve_path(expand_user(request.source_dir));
  const ServerRoot root{resolve_path(expand_user(request.root_dir))};
  if (root.root == source || root.root.starts_with(source + "/")) {
    throw ValueError("the output directory must not lie inside the source");
  }

  std::vector<std::string> paths;
  for (const std::string& found : find_entries(source, [](std::string_view) { return true; })) {
    if (!stat_path(found).is_regular) continue;
    std::string rel = found.substr(source.size() + 1);
    check_publishable(rel);
    // Every client would fetch it: a key is never published.
    if (holds_private_key(found)) {
      throw ValueError("cannot publish " + quoted(std::string_view(rel)) + ": it holds a private key");
    }
    paths.push_back(std::move(rel));
  }
  std::sort(paths.begin(), paths.end());

  // Every vocabulary is checked before anything is written.
  PublishReport report;
  for (const std::string& rel : paths) {
    if (const auto universe = _vocabulary_named_universe_from_path(rel)) {
      _validate_vocabulary_file(join_path(source, rel), request.era_id, universe);
      report.universes.push_back(*universe);
    }
  }
  if (report.universes.empty()) {
    throw ValueError("source has no features/<universe>/vocabulary.json; clients refuse an era without one");
  }

  // What the era held before: a client keeps a file it already holds for as
  // long as the era lasts, so a change to one will not reach it.
  Json earlier = Json::object();
  if (path_exists(root.manifest_path(request.era_id))) {
    const Json before = parse_json_text(read_file(root.manifest_path(request.era_id)));
    if (before.is_object() && before.contains("files") && before["files"].is_object()) earlier = before["files"];
    if (before.is_object() && before.contains("version") && before["version"].is_number_integer()) {
      report.previous_version = before["version"].get<std::int64_t>();
    }
  }

  Json files = Json::object();
  for (const std::string& rel : paths) {
    const Copied copied = copy_and_hash(join_path(source, rel), join_path(root.files_dir(request.era_id), rel));
    Json entry = Json::object();
    entry["size_bytes"] = copied.size;
    entry["sha256"] = copied.sha256;
    if (rel.starts_with("features/") && !_vocabulary_named_universe_from_path(rel)) entry["kind"] = "feature";
    if (earlier.contains(rel) && entry_text(earlier[rel], "sha256") != copied.sha256) {
      report.changed_within_era.push_back(rel);
    }
    files[rel] = std::move(entry);
    ++report.file_count;
    report.total_bytes += copied.size;
  }
  report.seed_created = ensure_seed(root.seed_path(request.era_id));

  Json manifest = Json::object();
  manifest["era_id"] = request.era_id;
  manifest["version"] = request.version;
  if (request.base_url) manifest["base_url"] = *request.base_url;
  manifest["files"] = std::move(files);
  report.era_dir = root.era_dir(request.era_id);
  _write_manifest_json(report.era_dir, manifest);

  if (request.activate || !read_era_state(root)) {
    write_era_state(root, era_state(request.era_id));
    report.activated = true;
  }
  return report;
}

}  // namespace quillmarsh::sync::server
