#include "sync/paths/manifest_paths.h"

#include <limits>
#include <vector>

#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "sync/support/real_path.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/support/url.h"

namespace quillmarsh::sync {

using Json = nlohmann::ordered_json;

namespace {

std::string_view strip_trailing_slashes(std::string_view text) {
  while (!text.empty() && text.back() == '/') text.remove_suffix(1);
  return text;
}

constexpr std::string_view kNotAPath = "Manifest file path must be a non-empty relative path";

// The text of a manifest path that arrived as JSON.
std::string_view path_text(const Json& file_path) {
  if (!file_path.is_string()) throw ManifestError(std::string(kNotAPath));
  return file_path.get_ref<const std::string&>();
}

[[noreturn]] void refuse(std::string_view message, std::string_view file_path) {
  throw ManifestError(std::string(message) + ": " + quoted(file_path));
}

// Whether target is base or lies under it, by whole segments, so that a
// sibling "/data2" is not inside "/data". Both are absolute and normalised.
bool is_within(std::string_view base, std::string_view target) {
  if (base == "/") return true;
  return target.starts_with(base) &&
         (target.size() == base.size() || target[base.size()] == '/');
}

}  // namespace

std::string _safe_manifest_relative_path(const Json& file_path) {
  return _safe_manifest_relative_path(path_text(file_path));
}

std::string _safe_manifest_relative_path(std::string_view file_path) {
  if (strip(file_path).empty()) throw ManifestError(std::string(kNotAPath));
  if (file_path.find('\0') != std::string_view::npos) {
    refuse("Manifest file path contains NUL byte", file_path);
  }
  std::string slashed(file_path);
  for (char& c : slashed) {
    if (c == '\\') c = '/';
  }
  const std::string_view normalized = strip(slashed);
  if (normalized.starts_with('/')) refuse("Manifest file path must be relative", file_path);

  std::string joined;
  std::size_t pos = 0;
  while (pos <= normalized.size()) {
    std::size_t end = normalized.find('/', pos);
    if (end == std::string_view::npos) end = normalized.size();
    const std::string_view segment = normalized.substr(pos, end - pos);
    pos = end + 1;
    if (segment.empty() || segment == ".") continue;
    if (segment == "..") refuse("Manifest file path contains unsafe segments", file_path);
    if (!joined.empty()) joined += '/';
    joined += segment;
  }
  if (joined.empty()) refuse("Manifest file path contains unsafe segments", file_path);
  return joined;
}

std::string _manifest_local_path(std::string_view data_dir, const Json& file_path) {
  return _manifest_local_path(data_dir, path_text(file_path));
}

std::string _manifest_local_path(std::string_view data_dir, std::string_view file_path) {
  const std::string rel_path = _safe_manifest_relative_path(file_path);
  const std::string base = resolve_path(expand_user(data_dir));
  const std::string target = resolve_path_below(base, rel_path);
  if (!is_within(base, target)) refuse("Manifest file path escapes data directory", file_path);
  return target;
}

ManifestPathResolver::Resolved ManifestPathResolver::resolve(std::string_view file_path) {
  const std::string rel_path = _safe_manifest_relative_path(file_path);
  if (!base_) base_ = resolve_path(expand_user(data_dir_));
  const std::size_t slash = rel_path.rfind('/');
  const std::string_view name = slash == std::string::npos ? std::string_view(rel_path) : std::string_view(rel_path).substr(slash + 1);
  // Walking the directory, then the name from where it led, ends where
  // walking the whole path would.
  const std::string* dir = &*base_;
  if (slash != std::string::npos) {
    std::string dir_rel = rel_path.substr(0, slash);
    auto it = dirs_.find(dir_rel);
    if (it == dirs_.end()) {
      std::string resolved = resolve_path_below(*base_, dir_rel);
      it = dirs_.emplace(std::move(dir_rel), std::move(resolved)).first;
    }
    dir = &it->second;
  }
  // The name is one plain segment: where it is no link, walking it ends at
  // dir/name, and the look-up that tells is the file's stat as well.
  Resolved out;
  out.path = *dir == "/" ? "/" + std::string(name) : *dir + "/" + std::string(name);
  try {
    if (open_dir_ != *dir) {
      open_dir_ = *dir;
      open_handle_ = DirectoryHandle(open_dir_);
    }
    if (open_handle_.is_open()) {
      out.stat = open_handle_.lstat_at(std::string(name), out.path);
    } else if (!open_handle_.is_missing()) {  // nothing is below a directory that is not there
      out.stat = lstat_path(out.path);
    }
    out.answered = true;
  } catch (const OSError&) {
    out.stat.reset();  // left to the walk, which takes such a name as it stands
  }
  if (out.stat && out.stat->is_link) {
    out.stat.reset();
    out.answered = false;
    out.path = resolve_path_below(*dir, name);
  }
  if (!is_within(*base_, out.path)) refuse("Manifest file path escapes data directory", file_path);
  return out;
}

std::string _manifest_file_url(std::string_view server_url, const Json& file_path,
                               const Json& base_url) {
  return _manifest_file_url(server_url, path_text(file_path), base_url);
}

std::string _manifest_file_url(std::string_view server_url, std::string_view file_path,
                               const Json& base_url) {
  const std::string rel_path = _safe_manifest_relative_path(file_path);
  if (!base_url.is_string() || strip(base_url.get_ref<const std::string&>()).empty()) {
    throw ManifestError("Manifest base_url is required for R2 artifact downloads");
  }
  const std::string_view base = strip(base_url.get_ref<const std::string&>());
  const UrlParts parsed_base = split_url(base);
  if (parsed_base.scheme != "https" || parsed_base.netloc.empty()) {
    throw ManifestError("Manifest base_url must be an absolute HTTPS R2 URL");
  }
  const UrlParts parsed_server = split_url(server_url);
  if (!parsed_server.netloc.empty() && parsed_server.netloc == parsed_base.netloc) {
    throw ManifestError("Manifest base_url must not point at the API server");
  }
  const std::string_view base_path = strip_trailing_slashes(parsed_base.path);
  if (base_path == "/data/files" || base_path.starts_with("/data/files/")) {
    throw ManifestError("Manifest base_url must not use the API /data/files endpoint");
  }
  std::string url(strip_trailing_slashes(base));
  url += '/';
  url += rel_path;
  return url;
}

std::optional<std::string> _agent_signal_group_key(const Json& file_path, std::string_view prefix) {
  if (!file_path.is_string()) return std::nullopt;
  return _agent_signal_group_key(path_text(file_path), prefix);
}

std::optional<std::string> _agent_signal_group_key(std::string_view file_path,
                                                   std::string_view prefix) {
  if (!file_path.starts_with(prefix)) return std::nullopt;
  const std::string_view root = strip_trailing_slashes(prefix);
  // The segment that marks each root's current data.
  std::string_view current_epoch;
  if (root == "found_signals") {
    current_epoch = "signal_is";
  } else if (root == "found_strategies") {
    current_epoch = "strategy_is";
  } else if (root == "useful_signals") {
    current_epoch = "signal_os";
  } else {
    return std::nullopt;
  }

  std::vector<std::string_view> parts;
  for (std::size_t pos = 0;;) {
    const std::size_t slash = file_path.find('/', pos);
    parts.push_back(file_path.substr(pos, slash == std::string_view::npos ? slash : slash - pos));
    if (slash == std::string_view::npos || parts.size() == 5) break;
    pos = slash + 1;
  }
  if (parts.size() < 5 || parts[0] != root || parts[3] != current_epoch) return std::nullopt;
  return std::string(file_path.substr(0, parts[0].size() + parts[1].size() + parts[2].size() + 2));
}

std::optional<std::int64_t> _parse_era_directory_id(std::string_view name) {
  std::string_view suffix;
  if (name.starts_with("era_")) {
    suffix = name.substr(4);
  } else if (name.starts_with("era")) {
    suffix = name.substr(3);
  } else {
    return std::nullopt;
  }
  if (suffix.empty()) return std::nullopt;
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  std::int64_t value = 0;
  for (char c : suffix) {
    if (c < '0' || c > '9') return std::nullopt;
    const int digit = c - '0';
    if (value > (kMax - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace quillmarsh::sync
