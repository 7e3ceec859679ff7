// _validate_vocabulary_bytes on any bytes, judged against a fixed era and
// universe and against the ones the bytes themselves name, so that valid
// vocabularies are reached as well as refused ones.
//
// A refusal is a SyncError (EraError only for a complete object of another
// era). An accepted vocabulary is the parsed object itself, holds every
// required key, is of the expected era, and names one safe, stripped
// universe at the top and in its metadata.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/artefacts/vocabulary.h"
#include "sync/errors.h"
#include "sync/support/integer.h"
#include "sync/support/json_text.h"
#include "sync/support/text.h"
#include "tests/fuzz/fuzz_check.h"

namespace quillmarsh::sync {
namespace {

constexpr std::int64_t kEra = 7;

bool has_required_keys(const Json& value) {
  if (!value.is_object()) return false;
  for (std::string_view key : _REQUIRED_VOCABULARY_KEYS) {
    if (!value.contains(key)) return false;
  }
  return true;
}

bool is_safe_segment(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && strip(name) == name &&
         name.find_first_of(std::string_view("/\\\0", 3)) == std::string::npos;
}

// Judges `data` once from its bytes, and then, to spare a parse per try,
// each further era and universe from its parsed value.
void check_one(std::string_view data, const std::optional<Json>& parsed, std::int64_t era,
               const std::optional<std::string>& universe, bool from_bytes) {
  std::optional<Json> valid;
  try {
    valid = from_bytes ? _validate_vocabulary_bytes(data, era, universe)
                       : _validate_vocabulary_data(*parsed, era, universe);
  } catch (const EraError&) {
    FUZZ_CHECK(parsed && has_required_keys(*parsed), "EraError before the era was looked at");
    FUZZ_CHECK((*parsed)["era_id"] != Json(era), "EraError for the expected era");
    return;
  } catch (const SyncError&) {
    return;
  }
  FUZZ_CHECK(parsed.has_value(), "bytes that do not parse were accepted");
  FUZZ_CHECK(*valid == *parsed, "the accepted vocabulary is not the parsed one");
  FUZZ_CHECK(has_required_keys(*valid), "an accepted vocabulary lacks a required key");
  const Json& era_id = (*valid)["era_id"];
  FUZZ_CHECK(era_id.is_number() && era_id == Json(era), "an accepted vocabulary is of another era");
  const Json& name = (*valid)["named_universe"];
  FUZZ_CHECK(name.is_string() && is_safe_segment(name.get<std::string>()),
             "an accepted vocabulary's universe is no safe stripped segment");
  if (universe) {
    FUZZ_CHECK(name.get<std::string>() == strip(*universe), "the universe is not the one asked for");
  }
  const Json& metadata = (*valid)["metadata"];
  FUZZ_CHECK(metadata.is_object() && metadata.contains("named_universe") && metadata["named_universe"] == name,
             "an accepted vocabulary's metadata names another universe");
}

}  // namespace

void fuzz_one(std::string_view data) {
  const std::optional<Json> parsed = unless_refused<ValueError>([&] {
    check_utf8(data);
    return parse_json_text(data);
  });

  check_one(data, parsed, kEra, std::nullopt, true);
  if (!parsed || !parsed->is_object()) return;

  std::vector<std::int64_t> eras = {kEra};
  std::vector<std::optional<std::string>> universes = {std::nullopt, "us_equities", " us_equities\t", "a/b"};
  if (const auto it = parsed->find("era_id"); it != parsed->end() && it->is_primitive() && !it->is_null()) {
    const auto era = unless_refused<ValueError>([&] { return integer_of(*it); });
    if (era && *era != kEra) eras.push_back(*era);
  }
  if (const auto it = parsed->find("named_universe"); it != parsed->end() && it->is_string()) {
    universes.push_back(it->get<std::string>());
  }
  for (std::int64_t era : eras) {
    for (const auto& universe : universes) {
      if (era != kEra || universe) check_one(data, parsed, era, universe, false);
    }
  }
}

}  // namespace quillmarsh::sync
