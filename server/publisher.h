// Builds a published era from a source tree: copies the files into the
// server root, writes a manifest with their sizes, digests and kinds, checks
// each universe's vocabulary with the client's own validator, and gives the
// era a shuffle seed.
#ifndef QUILLMARSH_SYNC_SERVER_PUBLISHER_H_
#define QUILLMARSH_SYNC_SERVER_PUBLISHER_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace quillmarsh::sync::server {

struct PublishRequest {
  std::string source_dir;
  std::string root_dir;  // the server root (see server_root.h)
  std::int64_t era_id = 0;
  std::int64_t version = 0;
  // The object store's base URL written into the manifest; without one the
  // reference server names its own when it serves the manifest.
  std::optional<std::string> base_url;
  // Make this era the one served. The first era published always is.
  bool activate = false;
};

struct PublishReport {
  std::string era_dir;
  std::int64_t file_count = 0;
  std::int64_t total_bytes = 0;
  std::vector<std::string> universes;  // sorted
  // Files the era already held with other content. Clients that hold them
  // keep their copies until the era ends.
  std::vector<std::string> changed_within_era;
  // The version the era was published with before, if it was. A client
  // that holds a version does not fetch that version's manifest again.
  std::optional<std::int64_t> previous_version;
  bool seed_created = false;  // false: the era's seed was kept
  bool activated = false;
};

// Publishes one era. Fails with ValueError for a source the client could
// not mirror (no vocabulary, a name the client keeps for itself) or should
// never get (tls/, a private key), the
// validator's SyncError or EraError for a bad vocabulary, and OSError for
// files that cannot be read or written. Nothing is served before the
// manifest, which is written last.
PublishReport publish_era(const PublishRequest& request);

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_PUBLISHER_H_
