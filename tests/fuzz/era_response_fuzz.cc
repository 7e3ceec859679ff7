// _normalize_era_current_response on any JSON, followed by what the era
// gates print of its answer: quoted_json on state. (integer_of, which they
// read era_id with, has its own target on any JSON.)
//
// The answer leaves its input untouched. A wrapped answer's inner object
// keeps every member, in order, with the outer state appended only where the
// inner one has none and the outer one is not null; a wrapped answer with no
// inner object is {era_id: null, state}; anything else comes back as it was.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sync/era/era_api.h"
#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/repr.h"
#include "tests/fuzz/fuzz_check.h"

namespace quillmarsh::sync {
namespace {

const Json* member(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  const auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

void check_normalized(const Json& data, const Json& normalized) {
  const Json* era = member(data, "era");
  if (era == nullptr) {
    FUZZ_CHECK(normalized == data, "an answer without era did not come back as it was");
    return;
  }
  const Json* outer_state = member(data, "state");
  if (!era->is_object()) {
    Json expected = Json::object();
    expected["era_id"] = nullptr;
    expected["state"] = outer_state ? *outer_state : Json("between_eras");
    FUZZ_CHECK(normalized == expected, "a wrapped answer with no era object is not {era_id: null, state}");
    return;
  }
  FUZZ_CHECK(normalized.is_object(), "a wrapped era object did not give an object");
  const auto& inner = era->get_ref<const Json::object_t&>();
  const auto& out = normalized.get_ref<const Json::object_t&>();
  const bool appended = !era->contains("state") && outer_state && !outer_state->is_null();
  FUZZ_CHECK(out.size() == inner.size() + (appended ? 1 : 0), "members were lost or invented");
  auto out_member = out.begin();
  for (const auto& inner_member : inner) {
    FUZZ_CHECK(out_member->first == inner_member.first && out_member->second == inner_member.second,
               "an inner member changed or moved");
    ++out_member;
  }
  if (appended) {
    FUZZ_CHECK(out.back().first == "state" && out.back().second == *outer_state,
               "the outer state was not appended as it came");
  }
}

// What _fetch_active_era_for_transition prints of a normalised answer.
void check_gate_reading(const Json& normalized) {
  if (!normalized.is_object()) return;
  const Json* state = member(normalized, "state");
  const std::string printed = quoted_json(state ? *state : Json());
  FUZZ_CHECK(!printed.empty(), "quoted_json printed nothing");
  if (state && state->is_string()) {
    FUZZ_CHECK(printed == quoted(state->get_ref<const std::string&>()),
               "quoted_json of a state text is not its quoted form");
  }
  // The answer is kept as JSON state; every text in it came from UTF-8.
  json_text(normalized);
}

}  // namespace

void fuzz_one(std::string_view input) {
  const std::optional<Json> parsed = unless_refused<ValueError>([&] { return parse_json_text(input); });
  if (!parsed) return;
  const Json before = *parsed;
  const Json normalized = _normalize_era_current_response(*parsed);
  FUZZ_CHECK(*parsed == before, "the answer changed its input");
  check_normalized(*parsed, normalized);
  check_gate_reading(normalized);
}

}  // namespace quillmarsh::sync
