// The manifest path gate, _safe_manifest_relative_path and
// _manifest_local_path, on any bytes: as raw text and as the JSON value they
// parse to (a string of the bytes when they do not parse).
//
// A data directory made once per process holds subdirectories and links that
// stay inside, leave it, loop or dangle. Every local path the gate gives lies
// within the data directory's real path and has no link left to follow;
// every refusal is a ManifestError; and the tree is never changed.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/errors.h"
#include "sync/paths/manifest_paths.h"
#include "sync/support/json_text.h"
#include "tests/fuzz/fuzz_check.h"

namespace quillmarsh::sync {
namespace {

namespace fs = std::filesystem;

// How often the tree is listed again to see that nothing appeared.
constexpr std::uint64_t kListingInterval = 128;

// root/data is the data directory, root/data_link a link to it; root/outside
// and root/data2 lie beside it.
class Fixture {
 public:
  Fixture() {
    std::string pattern = (fs::temp_directory_path() / "qmsync-fuzz-paths-XXXXXX").string();
    char real[PATH_MAX];
    FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr && realpath(pattern.c_str(), real) != nullptr,
               "could not make the fixture's root");
    root_ = real;
    for (const char* dir : {"outside", "data2", "data/a/b", "data/features/us_equities", "data/era_3"}) {
      fs::create_directories(root_ + "/" + dir);
    }
    for (const char* file : {"outside/secret.txt", "data/a/b/c.bin", "data/features/us_equities/vocabulary.json"}) {
      std::ofstream(root_ + "/" + file) << "x";
    }
    const std::pair<std::string, std::string> links[] = {
        {"data_link", "data"},
        {"data/inner", "a/b"},                        // stays inside
        {"data/chain", "inner"},                      // a link to a link
        {"data/self", "."},
        {"data/a/b/twisty", "../../features/../a"},   // ".." that stays inside
        {"data/data_abs", root_ + "/data"},           // absolute, back into data
        {"data/out", "../outside"},                   // escapes
        {"data/abs", root_ + "/outside"},
        {"data/a/escape", "../../outside"},
        {"data/parent", ".."},
        {"data/sib", "../data2"},                     // a sibling whose name extends data's
        {"data/root", "/"},
        {"data/loop", "loop"},
        {"data/loop1", "loop2"},
        {"data/loop2", "loop1"},
        {"data/loop_back", "loop/../a"},              // through a loop, then inside
        {"data/loop_out", "loop/../../outside"},      // through a loop, then out
        {"data/dangling", "missing/deeper"},
        {"data/dangle_out", "../nowhere"},
    };
    for (const auto& [at, target] : links) {
      FUZZ_CHECK(symlink(target.c_str(), (root_ + "/" + at).c_str()) == 0, "could not make a fixture link");
    }
    data_dir_ = root_ + "/data";
    other_spellings_ = {root_ + "/data_link", data_dir_ + "/", root_ + "/data_link/./a/.."};
    listing_ = listing();
  }
  ~Fixture() {
    check_unchanged();
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }

  // The data directory's real path, and other spellings of it, one of which
  // each input is also tried with.
  const std::string& data_dir() const { return data_dir_; }
  const std::string& other_spelling(std::size_t pick) const { return other_spellings_[pick % other_spellings_.size()]; }

  void check_unchanged() const { FUZZ_CHECK(listing() == listing_, "the gate changed the file system"); }

 private:
  std::vector<std::string> listing() const {
    std::vector<std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(root_)) {
      entries.push_back(entry.path().string() + (entry.is_symlink() ? "@" : entry.is_directory() ? "/" : ""));
    }
    return entries;
  }

  std::string root_;
  std::string data_dir_;
  std::vector<std::string> other_spellings_;
  std::vector<std::string> listing_;
};

Fixture& fixture() {
  static Fixture instance;
  return instance;
}

std::vector<std::string_view> segments(std::string_view path) {
  std::vector<std::string_view> out;
  std::size_t pos = 0;
  for (;;) {
    const std::size_t slash = path.find('/', pos);
    out.push_back(path.substr(pos, slash == std::string_view::npos ? slash : slash - pos));
    if (slash == std::string_view::npos) return out;
    pos = slash + 1;
  }
}

void check_relative(const std::string& rel) {
  FUZZ_CHECK(!rel.empty() && rel.front() != '/', "a safe path is empty or absolute");
  FUZZ_CHECK(rel.find('\\') == std::string::npos && rel.find('\0') == std::string::npos,
             "a safe path holds a backslash or NUL");
  for (std::string_view segment : segments(rel)) {
    FUZZ_CHECK(!segment.empty() && segment != "." && segment != "..", "a safe path holds an unsafe segment");
  }
}

// `local` lies within the data directory by whole segments, is normalised,
// and the part of it that exists has no link left in it but a looping one.
void check_local(const std::string& local) {
  const std::string& base = fixture().data_dir();
  FUZZ_CHECK(local.starts_with(base) && (local.size() == base.size() || local[base.size()] == '/'),
             "a local path lies outside the data directory");
  for (std::string_view segment : segments(std::string_view(local).substr(1))) {
    FUZZ_CHECK(!segment.empty() && segment != "." && segment != "..", "a local path is not normalised");
  }
  std::string existing = local;
  struct stat st;
  while (lstat(existing.c_str(), &st) != 0) existing.erase(existing.rfind('/'));
  char buf[PATH_MAX];
  if (realpath(existing.c_str(), buf) == nullptr) {
    FUZZ_CHECK(errno == ELOOP && S_ISLNK(st.st_mode), "the existing part of a local path does not resolve");
    return;
  }
  FUZZ_CHECK(existing == buf, "a local path still holds a link");
}

// The kernel's own answer for data_dir/rel: realpath of the longest prefix
// it resolves, the rest as written. Where that prefix is followed by a link
// it cannot resolve (dangling, looping) the gate goes its own way, and the
// check stands aside. The gate must give this path exactly when it lies
// within the data directory, and refuse it otherwise.
void check_against_kernel(const std::string& rel, const std::optional<std::string>& local) {
  const std::string& base = fixture().data_dir();
  const std::vector<std::string_view> parts = segments(rel);
  std::string resolved = base;
  std::size_t done = 0;
  std::string prefix = base;
  char buf[PATH_MAX];
  for (std::size_t i = 0; i < parts.size(); ++i) {
    prefix += '/';
    prefix += parts[i];
    if (realpath(prefix.c_str(), buf) == nullptr) break;
    resolved = buf;
    done = i + 1;
  }
  if (done < parts.size()) {
    struct stat st;
    const std::string next = resolved + "/" + std::string(parts[done]);
    if (lstat(next.c_str(), &st) == 0) return;
  }
  std::string expected = resolved == "/" ? "" : resolved;
  for (std::size_t i = done; i < parts.size(); ++i) {
    expected += '/';
    expected += parts[i];
  }
  const bool inside = expected.starts_with(base) && (expected.size() == base.size() || expected[base.size()] == '/');
  FUZZ_CHECK(inside ? local == expected : !local, "the gate disagrees with the kernel's resolution");
}

// The gate's answers, absent where it refuses; Input is Json or string_view.
template <typename Input>
std::optional<std::string> safe_path(const Input& input) {
  return unless_refused<ManifestError>([&] { return _safe_manifest_relative_path(input); });
}
template <typename Input>
std::optional<std::string> local_path(const std::string& data_dir, const Input& input) {
  return unless_refused<ManifestError>([&] { return _manifest_local_path(data_dir, input); });
}

void check_text(std::string_view input) {
  const std::optional<std::string> rel = safe_path(input);
  if (rel) check_relative(*rel);
  const std::optional<std::string> local = local_path(fixture().data_dir(), input);
  FUZZ_CHECK(rel || !local, "a local path for a path the gate refuses");
  if (local) check_local(*local);
  FUZZ_CHECK(local_path(fixture().other_spelling(input.size()), input) == local,
             "spellings of one data directory disagree");
  if (rel) check_against_kernel(*rel, local);
}

void check_json(const Json& input) {
  const std::optional<std::string> rel = safe_path(input);
  const std::optional<std::string> local = local_path(fixture().data_dir(), input);
  if (!input.is_string()) {
    FUZZ_CHECK(!rel && !local, "a path that is no string passed the gate");
    return;
  }
  const std::string& text = input.get_ref<const std::string&>();
  FUZZ_CHECK(rel == safe_path(std::string_view(text)), "JSON and text overloads disagree");
  FUZZ_CHECK(local == local_path(fixture().data_dir(), std::string_view(text)),
             "JSON and text overloads disagree on the local path");
}

}  // namespace

void fuzz_one(std::string_view input) {
  static std::uint64_t runs = 0;
  const std::optional<Json> parsed = unless_refused<ValueError>([&] { return parse_json_text(input); });
  check_json(parsed ? *parsed : Json(std::string(input)));
  check_text(input);
  if (parsed && parsed->is_string()) check_text(parsed->get_ref<const std::string&>());
  if (++runs % kListingInterval == 0) fixture().check_unchanged();
}

}  // namespace quillmarsh::sync
