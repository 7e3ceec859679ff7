// Sample content shared by the suites: bytes that differ from file to file,
// a valid vocabulary of an era, and an era's shuffle seed.
#ifndef QUILLMARSH_SYNC_TESTS_SUPPORT_SAMPLE_DATA_H_
#define QUILLMARSH_SYNC_TESTS_SUPPORT_SAMPLE_DATA_H_

#include <cstdint>
#include <string>

#include "sync/support/json_text.h"

namespace quillmarsh::sync::testing {

// Bytes that differ from seed to seed and do not compress to nothing, so a
// misplaced slice never compares equal.
inline std::string pseudo_random_bytes(std::size_t n, std::uint32_t seed) {
  std::string bytes(n, '\0');
  for (char& c : bytes) {
    seed = seed * 1664525u + 1013904223u;
    c = static_cast<char>(seed >> 24);
  }
  return bytes;
}

// A valid vocabulary of `era` for `universe`; `metadata` gains the
// universe's name.
inline Json vocabulary(std::int64_t era, const std::string& universe, Json metadata = Json::object()) {
  metadata["named_universe"] = universe;
  return Json{{"era_id", era}, {"named_universe", universe}, {"rotations", Json::array()},
              {"filtrations", Json::array()}, {"reductions", Json::object()},
              {"features", Json::array({"f1", "f2"})}, {"metadata", std::move(metadata)}};
}

// The text of a vocabulary with the metadata a sync result reports.
inline std::string vocabulary_text(std::int64_t era, const std::string& universe) {
  return json_text(vocabulary(era, universe, Json{{"t_signal_is", 12}, {"n_instruments", 30}}));
}

// 60 seed bytes that differ from era to era.
inline std::string seed_bytes(std::int64_t era) {
  std::string bytes(60, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    bytes[i] = static_cast<char>('A' + (static_cast<std::size_t>(era) * 7 + i) % 26);
  }
  return bytes;
}

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_SUPPORT_SAMPLE_DATA_H_
