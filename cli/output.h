// What qmsync prints on stdout: text for a person, or with --json one JSON
// object whose keys are the records' field names.
#ifndef QUILLMARSH_SYNC_CLI_OUTPUT_H_
#define QUILLMARSH_SYNC_CLI_OUTPUT_H_

#include <optional>
#include <string>

#include "sync/records.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync::cli {

// How much a command prints: --json, -q, -v.
struct OutputStyle {
  bool json = false;
  bool quiet = false;
  bool verbose = false;
};

// "812 bytes", "39.1 KiB", "2.0 MiB".
std::string bytes_text(std::int64_t n);

Json sync_result_json(const SyncResult& result);
Json verify_result_json(const VerifyResult& result);

// `verb` heads the text: "Sync" or "Repair". A repair reads no era figures,
// so it shows none. The text leaves out counters that are zero unless
// verbose; quiet prints nothing.
void print_sync_result(const SyncResult& result, const std::string& verb, const OutputStyle& style);
void print_verify_result(const VerifyResult& result, bool json);

// The manifest in force (absent before the first sync) and the service's
// view of it.
struct StatusReport {
  Json era_id;   // as the manifest holds it; null without a manifest
  Json version;  // likewise
  std::int64_t file_count = 0;
  bool needs_sync = false;
  std::optional<std::string> status;
  Json server_era_id;  // from the server's version document
  Json server_version;
  std::string advice;  // what to run, when the server is on another era
};
void print_status(const StatusReport& report, bool json);

void print_needs_sync(bool needs_sync, bool json);

// The manifest in force after a transition (needs_sync and status unused).
void print_transition_result(const StatusReport& report, bool json);
// `all`: the current data went as well as the old eras.
void print_cleanup_result(std::int64_t bytes_freed, bool all, bool json);

// Prints a JSON object on one line.
void print_json(const Json& object);

}  // namespace quillmarsh::sync::cli

#endif  // QUILLMARSH_SYNC_CLI_OUTPUT_H_
