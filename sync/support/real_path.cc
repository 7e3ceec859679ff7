#include "sync/support/real_path.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <vector>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

// getpw*_r want a caller's buffer; a generous one avoids the retry dance for
// any ordinary password database.
constexpr std::size_t kPasswdBufferSize = 16384;

std::optional<std::string> home_of_uid(uid_t uid) {
  passwd entry;
  passwd* found = nullptr;
  std::vector<char> buf(kPasswdBufferSize);
  if (getpwuid_r(uid, &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::string(entry.pw_dir);
}

std::optional<std::string> home_of_user(const std::string& name) {
  passwd entry;
  passwd* found = nullptr;
  std::vector<char> buf(kPasswdBufferSize);
  if (getpwnam_r(name.c_str(), &entry, buf.data(), buf.size(), &found) != 0 || found == nullptr) {
    return std::nullopt;
  }
  return std::string(entry.pw_dir);
}

[[noreturn]] void throw_os_error(int error_number, const std::string& what) {
  const std::string message = "[Errno " + std::to_string(error_number) + "] " +
                              std::generic_category().message(error_number) + ": " + what;
  if (error_number == ENOENT) throw FileNotFoundError(error_number, message);
  throw OSError(error_number, message);
}

std::string current_directory() {
  std::string buf(256, '\0');
  while (getcwd(buf.data(), buf.size()) == nullptr) {
    if (errno != ERANGE) throw_os_error(errno, "getcwd");
    buf.resize(buf.size() * 2);
  }
  buf.resize(std::strlen(buf.c_str()));
  return buf;
}

std::optional<std::string> read_link(const std::string& path) {
  std::string buf(256, '\0');
  for (;;) {
    const ssize_t n = readlink(path.c_str(), buf.data(), buf.size());
    if (n < 0) return std::nullopt;
    if (static_cast<std::size_t>(n) < buf.size()) {
      buf.resize(static_cast<std::size_t>(n));
      return buf;
    }
    buf.resize(buf.size() * 2);  // possibly cut short; try again larger
  }
}

enum class LinkCheck { link, other, missing };

LinkCheck check_link(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    return errno == ENOENT || errno == ENOTDIR ? LinkCheck::missing : LinkCheck::other;
  }
  return S_ISLNK(st.st_mode) ? LinkCheck::link : LinkCheck::other;
}

// Pushes the segments of text so that the first one is popped first.
void push_segments(std::vector<std::pair<std::string, bool>>& stack, std::string_view text) {
  std::size_t end = text.size();
  for (;;) {
    const std::size_t slash = end == 0 ? std::string_view::npos : text.rfind('/', end - 1);
    const std::size_t begin = slash == std::string_view::npos ? 0 : slash + 1;
    stack.emplace_back(std::string(text.substr(begin, end - begin)), false);
    if (slash == std::string_view::npos) return;
    end = slash;
  }
}

}  // namespace

std::string expand_user(std::string_view path) {
  if (!path.starts_with('~')) return std::string(path);
  const std::size_t slash = path.find('/', 1);
  const std::size_t name_end = slash == std::string_view::npos ? path.size() : slash;
  std::optional<std::string> home;
  if (name_end == 1) {
    if (const char* env = std::getenv("HOME")) {
      home = env;
    } else {
      home = home_of_uid(getuid());
    }
  } else {
    home = home_of_user(std::string(path.substr(1, name_end - 1)));
  }
  if (!home) return std::string(path);
  while (!home->empty() && home->back() == '/') home->pop_back();
  std::string out = *home + std::string(path.substr(name_end));
  return out.empty() ? "/" : out;
}

namespace {

// Walks `input` from `path`, an absolute link-free path.
std::string walk(std::string path, std::string_view input) {

  // Segments still to walk, next on top. An entry flagged true names a link
  // whose target has just been walked; its resolution is then remembered.
  std::vector<std::pair<std::string, bool>> pending;
  push_segments(pending, input);
  // Link path -> its resolution; absent while that resolution is under way,
  // which is how a loop shows itself.
  std::unordered_map<std::string, std::optional<std::string>> seen;
  // Below a name that does not exist nothing exists either, so nothing there
  // is asked about until ".." climbs back out.
  bool missing = false;

  while (!pending.empty()) {
    auto [name, link_done] = std::move(pending.back());
    pending.pop_back();
    if (link_done) {
      seen[name] = path;
      continue;
    }
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      path.erase(path.rfind('/'));
      if (path.empty()) path = "/";
      missing = false;
      continue;
    }
    std::string next = path == "/" ? "/" + name : path + "/" + name;
    const LinkCheck check = missing ? LinkCheck::missing : check_link(next);
    if (check != LinkCheck::link) {
      missing = check == LinkCheck::missing;
      path = std::move(next);
      continue;
    }
    if (const auto it = seen.find(next); it != seen.end()) {
      // Resolved before, or a loop: keep the looping link as it stands.
      path = it->second ? *it->second : std::move(next);
      continue;
    }
    const std::optional<std::string> target = read_link(next);
    if (!target) {
      path = std::move(next);
      continue;
    }
    if (target->starts_with('/')) path = "/";
    seen.emplace(next, std::nullopt);
    pending.emplace_back(std::move(next), true);
    push_segments(pending, *target);
  }
  return path;
}

}  // namespace

std::string resolve_path(std::string_view input) {
  if (input.find('\0') != std::string_view::npos) throw ValueError("embedded null byte");
  return walk(input.starts_with('/') ? "/" : current_directory(), input);
}

std::string resolve_path_below(const std::string& resolved_base, std::string_view rel) {
  if (rel.find('\0') != std::string_view::npos) throw ValueError("embedded null byte");
  if (rel.starts_with('/')) return resolve_path(rel);
  return walk(resolved_base, rel);
}

}  // namespace quillmarsh::sync
