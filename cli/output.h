// What qmsync prints on stdout: text for a person, or with --json one JSON
// object whose keys are the records' field names.
#ifndef QUILLMARSH_SYNC_CLI_OUTPUT_H_
#define QUILLMARSH_SYNC_CLI_OUTPUT_H_

#include <optional>
#include <string>

#include "sync/records.h"
#include "sync/support/json_text.h"

namespace quillmarsh::sync::cli {

Json sync_result_json(const SyncResult& result);
Json verify_result_json(const VerifyResult& result);

// `verb` heads the text: "Sync" or "Repair".
void print_sync_result(const SyncResult& result, const std::string& verb, bool json);
void print_verify_result(const VerifyResult& result, bool json);

// The manifest in force (absent before the first sync) and the service's
// view of it.
struct StatusReport {
  Json era_id;   // as the manifest holds it; null without a manifest
  Json version;  // likewise
  std::int64_t file_count = 0;
  bool needs_sync = false;
  std::optional<std::string> status;
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
