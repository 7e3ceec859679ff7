// The gate between a server's manifest and the local disk: every manifest
// path is made safe here before it is used, and every download URL is built
// and checked here. Stateless; safe on any thread.
//
// Manifest values arrive as JSON of any type, so each function taking a file
// path has an overload for a JSON value as received and one for text.
#ifndef QUILLMARSH_SYNC_PATHS_MANIFEST_PATHS_H_
#define QUILLMARSH_SYNC_PATHS_MANIFEST_PATHS_H_

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "sync/support/posix_file.h"

namespace quillmarsh::sync {

// Any text argument (std::string, literals) takes the text overloads below
// rather than being converted to JSON, which would be ambiguous.
template <class T>
concept ManifestText = std::convertible_to<const T&, std::string_view>;

// The manifest path normalised to "a/b" form. Fails with ManifestError for a
// non-string, blank, NUL-holding, absolute or ".."-holding path.
std::string _safe_manifest_relative_path(const nlohmann::ordered_json& file_path);
std::string _safe_manifest_relative_path(std::string_view file_path);

// The absolute, link-resolved local path of a manifest path under data_dir
// ("~" expanded). Fails with ManifestError if the path, links followed, leaves
// data_dir. Reads the file system but creates nothing.
std::string _manifest_local_path(std::string_view data_dir,
                                 const nlohmann::ordered_json& file_path);
std::string _manifest_local_path(std::string_view data_dir, std::string_view file_path);

// _manifest_local_path for many paths under one data directory, for one pass
// over a manifest: the data directory is walked once, and each directory
// that manifest paths share once, so that a file costs one look-up of its
// own name. A link changed during the pass is seen by the next pass.
class ManifestPathResolver {
 public:
  explicit ManifestPathResolver(std::string_view data_dir) : data_dir_(data_dir) {}
  // As _manifest_local_path(data_dir, file_path), failures included.
  std::string local_path(std::string_view file_path) { return resolve(file_path).path; }

  struct Resolved {
    std::string path;
    // What stat(2) of `path` gives, when the look-up of the name found a
    // file or directory that is no link: one system call serves both.
    std::optional<FileStat> stat;
    // Whether the look-up answered for `path` itself: with `stat` absent,
    // nothing is there. False for a link, or a look-up that failed, which
    // leave the question to whoever follows the path.
    bool answered = false;
  };
  Resolved resolve(std::string_view file_path);

 private:
  std::string data_dir_;
  std::optional<std::string> base_;                    // resolved on first use, as a lone call would
  std::unordered_map<std::string, std::string> dirs_;  // safe relative directory -> resolved
  // The directory of the last look-up, held open: a manifest lists the
  // files of one directory together. One found missing stays so for the
  // names that follow in it: only their own downloads can bring them.
  std::string open_dir_;
  DirectoryHandle open_handle_;
};

// base_url + "/" + the safe path. Fails with ManifestError unless base_url
// (JSON null when absent) is an https URL away from the API server and off
// its /data/files endpoint.
std::string _manifest_file_url(std::string_view server_url, const nlohmann::ordered_json& file_path,
                               const nlohmann::ordered_json& base_url = nullptr);
std::string _manifest_file_url(std::string_view server_url, std::string_view file_path,
                               const nlohmann::ordered_json& base_url = nullptr);

// "root/a/b" for a file under root/a/b/{current epoch}/ of a signal root
// named by prefix; absent otherwise, and for a non-string.
std::optional<std::string> _agent_signal_group_key(const nlohmann::ordered_json& file_path,
                                                   std::string_view prefix);
std::optional<std::string> _agent_signal_group_key(std::string_view file_path,
                                                   std::string_view prefix);

// The era number of a directory named "era_N" or "eraN" (N decimal digits);
// absent for any other name or a number beyond 64 bits.
std::optional<std::int64_t> _parse_era_directory_id(std::string_view name);

template <ManifestText T>
std::string _safe_manifest_relative_path(const T& file_path) {
  return _safe_manifest_relative_path(std::string_view(file_path));
}

template <ManifestText T>
std::string _manifest_local_path(std::string_view data_dir, const T& file_path) {
  return _manifest_local_path(data_dir, std::string_view(file_path));
}

template <ManifestText T>
std::string _manifest_file_url(std::string_view server_url, const T& file_path,
                               const nlohmann::ordered_json& base_url = nullptr) {
  return _manifest_file_url(server_url, std::string_view(file_path), base_url);
}

template <ManifestText T>
std::optional<std::string> _agent_signal_group_key(const T& file_path, std::string_view prefix) {
  return _agent_signal_group_key(std::string_view(file_path), prefix);
}

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_PATHS_MANIFEST_PATHS_H_
