// The server's word on which era is current, and the three questions the
// transition asks of it. The gates keep no state and never retry: a wrong
// answer ends the transition, whose exit cleans up.
#include "sync/era/era_api.h"

#include <exception>

#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/repr.h"
#include "sync/support/text.h"
#include "sync/sync_manager.h"

namespace quillmarsh::sync {

Json _normalize_era_current_response(const Json& data) {
  if (!data.is_object() || !data.contains("era")) return data;
  const Json& era = data["era"];
  if (era.is_object()) {
    Json normalized = era;
    // An inner state wins, even a null one; the outer one only fills a gap.
    if (!normalized.contains("state") && data.contains("state") && !data["state"].is_null()) {
      normalized["state"] = data["state"];
    }
    return normalized;
  }
  Json normalized = Json::object();
  normalized["era_id"] = nullptr;
  normalized["state"] = data.contains("state") ? data["state"] : Json("between_eras");
  return normalized;
}

std::pair<std::int64_t, Json> SyncManager::_fetch_active_era_for_transition(bool allow_closing) {
  const HttpResponse response = _http_get(_server_url + "/era/current");
  if (response.status != 200) {
    throw EraError("Failed to confirm active era: HTTP " + std::to_string(response.status));
  }
  std::int64_t active_era_id = 0;
  Json era_manifest;
  try {
    check_utf8(response.body);
    era_manifest = _normalize_era_current_response(parse_json_text(response.body));
    if (!era_manifest.is_object()) throw TypeError("era response is not an object");
    active_era_id = integer_of(era_manifest.contains("era_id") ? era_manifest["era_id"] : Json());
  } catch (const std::exception&) {
    throw EraError("Failed to parse active era response during transition", std::current_exception());
  }
  const Json state = era_manifest.contains("state") ? era_manifest["state"] : Json();
  const bool allowed = state.is_string() && (state.get_ref<const std::string&>() == "active" ||
                                             (allow_closing && state.get_ref<const std::string&>() == "closing"));
  if (!allowed) {
    throw EraError("Active era confirmation for era_id=" + std::to_string(active_era_id) +
                   " returned state=" + quoted_json(state));
  }
  return {active_era_id, std::move(era_manifest)};
}

namespace {

[[noreturn]] void fail_era_mismatch(std::int64_t active_era_id, const Json& expected_era_id) {
  throw EraError("Active era_id=" + std::to_string(active_era_id) +
                 " does not match requested transition era_id=" + text_of_json(expected_era_id));
}

}  // namespace

Json SyncManager::_confirm_active_era(const Json& expected_era_id, bool allow_closing) {
  auto [active_era_id, era_manifest] = _fetch_active_era_for_transition(allow_closing);
  // A newer era fails here just as an older one does.
  if (active_era_id != integer_of(expected_era_id)) fail_era_mismatch(active_era_id, expected_era_id);
  return std::move(era_manifest);
}

std::optional<std::int64_t> SyncManager::_check_transition_superseded(const Json& expected_era_id,
                                                                      bool allow_closing) {
  const std::int64_t active_era_id = _fetch_active_era_for_transition(allow_closing).first;
  const std::int64_t expected = integer_of(expected_era_id);
  if (active_era_id > expected) return active_era_id;
  if (active_era_id != expected) fail_era_mismatch(active_era_id, expected_era_id);
  return std::nullopt;
}

}  // namespace quillmarsh::sync
