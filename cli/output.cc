#include "cli/output.h"

#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

#include "sync/support/repr.h"

namespace quillmarsh::sync::cli {

std::string bytes_text(std::int64_t n) {
  char text[64];
  if (n < 1024) {
    std::snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(n));
  } else if (n < 1024 * 1024) {
    std::snprintf(text, sizeof text, "%.1f KiB", static_cast<double>(n) / 1024);
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(n) / (1024 * 1024));
  }
  return text;
}

namespace {

// Aligned "name  value" lines, in the record's field order.
void print_fields(const Json& object) {
  std::size_t width = 0;
  for (const auto& [key, value] : object.items()) width = std::max(width, key.size());
  for (const auto& [key, value] : object.items()) {
    std::cout << "  " << key << std::string(width - key.size() + 2, ' ')
              << (value.is_string() ? value.get<std::string>() : value.dump()) << "\n";
  }
}

}  // namespace

Json sync_result_json(const SyncResult& r) {
  Json j = Json::object();
  j["features_downloaded"] = r.features_downloaded;
  j["useful_signals_downloaded"] = r.useful_signals_downloaded;
  j["bytes_downloaded"] = r.bytes_downloaded;
  j["era_id"] = r.era_id;
  j["t_signal_is"] = r.t_signal_is;
  j["t_strategy_is"] = r.t_strategy_is;
  j["n_instruments"] = r.n_instruments;
  j["n_features"] = r.n_features;
  j["n_useful_signals"] = r.n_useful_signals;
  j["n_found_strategies"] = r.n_found_strategies;
  j["pnl_column_count"] = r.pnl_column_count;
  j["vocabulary_downloaded"] = r.vocabulary_downloaded;
  j["shuffle_seed_downloaded"] = r.shuffle_seed_downloaded;
  return j;
}

Json verify_result_json(const VerifyResult& r) {
  Json j = Json::object();
  j["valid"] = r.valid;
  j["corrupted_files"] = r.corrupted_files;
  j["missing_files"] = r.missing_files;
  return j;
}

void print_json(const Json& object) { std::cout << json_text(object) << std::endl; }

void print_sync_result(const SyncResult& r, const std::string& verb, const OutputStyle& style) {
  Json fields = sync_result_json(r);
  if (verb == "Repair") {
    Json read = Json::object();
    for (const char* key : {"era_id", "features_downloaded", "useful_signals_downloaded", "bytes_downloaded"}) {
      read[key] = fields[key];
    }
    fields = std::move(read);
  }
  if (style.json) return print_json(fields);
  if (style.quiet) return;
  std::vector<std::string> fetched;
  if (r.vocabulary_downloaded) fetched.push_back("the vocabulary");
  if (r.shuffle_seed_downloaded) fetched.push_back("the shuffle seed");
  std::cout << verb << " done for era " << r.era_id << ": ";
  if (r.bytes_downloaded == 0 && fetched.empty()) {
    std::cout << "nothing needed downloading.\n";
  } else {
    std::cout << bytes_text(r.bytes_downloaded) << " of files downloaded";
    for (std::size_t i = 0; i < fetched.size(); ++i) std::cout << (i ? " and " : ", with ") << fetched[i];
    std::cout << ".\n";
  }
  if (!style.verbose) {
    Json shown = Json::object();
    for (const auto& [key, value] : fields.items()) {
      if (key != "era_id" && value != 0 && value != false) shown[key] = value;
    }
    fields = std::move(shown);
  }
  print_fields(fields);
}

void print_verify_result(const VerifyResult& r, bool json) {
  if (json) return print_json(verify_result_json(r));
  if (r.valid) {
    std::cout << "Valid: every file of the manifest in force is present with the right size and digest.\n";
    return;
  }
  std::cout << "Invalid: " << r.corrupted_files.size() << " corrupted, " << r.missing_files.size()
            << " missing.\n";
  for (const std::string& path : r.corrupted_files) std::cout << "  corrupted  " << path << "\n";
  for (const std::string& path : r.missing_files) std::cout << "  missing    " << path << "\n";
}

void print_status(const StatusReport& s, bool json) {
  Json j = Json::object();
  j["era_id"] = s.era_id;
  j["version"] = s.version;
  j["file_count"] = s.file_count;
  j["needs_sync"] = s.needs_sync;
  j["status"] = s.status ? Json(*s.status) : Json(nullptr);
  j["server_era_id"] = s.server_era_id;
  j["server_version"] = s.server_version;
  if (!s.advice.empty()) j["advice"] = s.advice;
  if (json) return print_json(j);
  if (s.era_id.is_null()) {
    std::cout << "No manifest in force yet: the data directory has not been synced.\n";
  } else {
    std::cout << "Manifest in force: era " << text_of_json(s.era_id) << ", version " << text_of_json(s.version)
              << ", " << s.file_count << " files.\n";
  }
  // A sync cannot cross eras, so on another era only the transition is due.
  if (!s.advice.empty()) {
    std::cout << s.advice << "\n";
  } else {
    std::cout << (s.needs_sync ? "The server has something newer, or local files are incomplete: a sync is due.\n"
                               : "Up to date with the server.\n");
  }
  if (s.status) std::cout << "Status: " << *s.status << "\n";
}

void print_needs_sync(bool needs_sync, bool json) {
  if (json) {
    Json j = Json::object();
    j["needs_sync"] = needs_sync;
    return print_json(j);
  }
  std::cout << (needs_sync ? "true" : "false") << "\n";
}

void print_transition_result(const StatusReport& s, bool json) {
  if (json) {
    Json j = Json::object();
    j["era_id"] = s.era_id;
    j["version"] = s.version;
    j["file_count"] = s.file_count;
    return print_json(j);
  }
  std::cout << "Now on era " << text_of_json(s.era_id) << ": version " << text_of_json(s.version) << ", "
            << s.file_count << " files.\n";
}

void print_cleanup_result(std::int64_t bytes_freed, bool all, bool json) {
  if (json) {
    Json j = Json::object();
    j["bytes_freed"] = bytes_freed;
    return print_json(j);
  }
  std::cout << "Freed " << bytes_text(bytes_freed) << (all ? " of old eras and the current data.\n" : " of old eras.\n");
}

}  // namespace quillmarsh::sync::cli
