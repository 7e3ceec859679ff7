// The vocabulary validators: names, paths, parsed values, bytes, files and
// whole manifests.
#include <gtest/gtest.h>

#include <functional>

#include "sync/artefacts/vocabulary.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome_and_cause;
using testing::outcome;
using testing::TempDir;
using testing::vocabulary;
using testing::vocabulary_path;

TEST(NamedUniverse, CleansOrRefuses) {
  const std::string unsafe = "SyncError: named_universe must be a single safe path segment: ";
  // The cleaned name, or the failure.
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {"...", "..."},
      {" \n ", "SyncError: named_universe is required"},
      {" . ", unsafe + "' . '"},  // the input as received, not the stripped name
      {std::string("a\0b", 3), unsafe + "'a\\x00b'"},
  };
  for (const auto& [input, expected] : cases) {
    std::string got;
    const std::string failure = outcome([&] { got = _validate_named_universe(input); });
    EXPECT_EQ(failure == "ok" ? got : failure, expected) << input.value_or("<absent>");
  }
}

TEST(VocabularyPath, GivesTheUniverseOfExactlyThreeSegments) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"features\\x\\vocabulary.json/", "x"},
      {"features/ x /vocabulary.json", "x"},
      {"/features/x/vocabulary.json", std::nullopt},  // refused by the path gate
      {"features/a/b/vocabulary.json", std::nullopt},
      {"Features/x/vocabulary.json", std::nullopt},
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(_vocabulary_named_universe_from_path(path), expected) << path;
  // A blank segment passes the path gate and fails as a name.
  EXPECT_EQ(outcome([] { _vocabulary_named_universe_from_path("features/  /vocabulary.json"); }),
            "SyncError: named_universe is required");
}

// A valid vocabulary of era 7 for universe "x", changed by `edit`.
Json vocabulary_with(const std::function<void(Json&)>& edit) {
  Json v = vocabulary(7, "x");
  edit(v);
  return v;
}

TEST(VocabularyData, RefusesInTheOrderOfItsTests) {
  struct Case {
    const char* name;
    Json vocabulary;
    std::optional<std::string> universe;
    std::string expected;
  };
  const std::string x = "x";
  const Case cases[] = {
      {"array", Json::array({1}), x, "SyncError: vocabulary.json must contain a JSON object"},
      {"missing keys, sorted", vocabulary_with([](Json& v) { v.erase("metadata"); v.erase("features"); }), x,
       "SyncError: vocabulary.json missing required keys: ['features', 'metadata']"},
      {"era and universe both wrong: the era speaks",
       vocabulary_with([](Json& v) { v["era_id"] = 8; v["named_universe"] = "y"; }), x, "EraError: vocabulary.json era_id=8 does not match manifest era_id=7"},
      {"other universe", vocabulary_with([](Json& v) { v["named_universe"] = "y"; }), x,
       "SyncError: vocabulary.json named_universe does not match manifest path 'x'"},
      {"own name with blanks, no argument", vocabulary_with([](Json& v) { v["named_universe"] = " x "; }),
       std::nullopt, "SyncError: vocabulary.json named_universe does not match manifest path 'x'"},
      {"era as a float", vocabulary_with([](Json& v) { v["era_id"] = 7.0; }), x, "ok"},
      {"argument with blanks", vocabulary_with([](Json&) {}), "  x ", "ok"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(outcome([&] { _validate_vocabulary_data(c.vocabulary, 7, c.universe); }), c.expected);
  }
}

// That undecodable bytes are refused, that EraError is kept for a complete
// object of another era and that what is accepted is the parsed object, of
// the era and universe asked for, are the vocabulary fuzz target's properties.
TEST(VocabularyFile, MissingUnreadableUndecodableAndMismatchedFilesAreTold) {
  TempDir dir;
  EXPECT_EQ(outcome([&] { _validate_vocabulary_file(dir / "absent.json", 7, "x"); }),
            "SyncError: vocabulary.json is missing");
  make_dirs(dir / "a_directory");
  const auto [failure, cause] = outcome_and_cause([&] { _validate_vocabulary_file(dir / "a_directory", 7, "x"); });
  EXPECT_TRUE(failure.starts_with("SyncError: vocabulary.json is not readable: ")) << failure;
  EXPECT_TRUE(cause.starts_with("OSError: ")) << cause;
  write_file(dir / "v.json", "\"\xff\"");
  const auto [bad, decoding] = outcome_and_cause([&] { _validate_vocabulary_file(dir / "v.json", 7, "x"); });
  EXPECT_TRUE(bad.starts_with("SyncError: vocabulary.json is not valid JSON: ")) << bad;
  EXPECT_NE(decoding, "") << "the decoding failure is kept as the cause";

  // A whole manifest's vocabularies: sorted, and the first bad file reported.
  const auto put = [&](const std::string& universe, const Json& vocabulary) {
    make_dirs(dir / ("features/" + universe));
    write_file(dir / vocabulary_path(universe), json_text(vocabulary));
  };
  const auto manifest_of = [](const std::vector<std::string>& universes, Json era_id = 7) {
    Json files = Json{{"features/zz/data.arrow", Json::object()}};
    for (const std::string& u : universes) files[vocabulary_path(u)] = Json::object();
    return Manifest(Json{{"era_id", era_id}, {"files", files}});
  };
  put("beta", vocabulary(7, "beta", Json{{"n_instruments", 2}}));
  put("alpha", vocabulary(7, "alpha", Json{{"n_instruments", 1}}));
  const Json vocabularies = _validate_manifest_vocabulary_files(dir.path(), manifest_of({"beta", "alpha"}, "7"));
  ASSERT_EQ(vocabularies.size(), 2u);  // an era held as text converts
  EXPECT_EQ(vocabularies.begin().key(), "alpha");
  EXPECT_EQ(vocabularies["alpha"], vocabulary(7, "alpha", Json{{"n_instruments", 1}}));

  put("beta", vocabulary(6, "beta"));
  put("alpha", vocabulary(7, "gamma"));
  EXPECT_EQ(outcome([&] { _validate_manifest_vocabulary_files(dir.path(), manifest_of({"beta", "alpha"})); }),
            "SyncError: vocabulary.json named_universe does not match manifest path 'alpha'");
  EXPECT_EQ(outcome([&] { _validate_manifest_vocabulary_files(dir.path(), manifest_of({"beta"})); }),
            "EraError: vocabulary.json era_id=6 does not match manifest era_id=7");
  EXPECT_EQ(outcome([&] { _validate_manifest_vocabulary_files(dir.path(), manifest_of({})); }),
            "SyncError: manifest is missing per-universe vocabulary.json entries");
  // An era that will not convert is no finding about the files.
  EXPECT_THROW(_validate_manifest_vocabulary_files(dir.path(), manifest_of({"beta"}, "seven")), ValueError);
  EXPECT_THROW(_validate_manifest_vocabulary_files(dir.path(), manifest_of({"beta"}, nullptr)), TypeError);
}

}  // namespace
}  // namespace quillmarsh::sync
