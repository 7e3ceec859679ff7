// The vocabulary validators (names, paths, parsed values, bytes, files and
// whole manifests); bringing vocabularies down, keeping valid local ones,
// and the repair of incomplete manifest entries from validated bytes.
#include <gtest/gtest.h>

#include <functional>
#include <optional>

#include "sync/artefacts/vocabulary.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::outcome_and_cause;
using testing::Fault;
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

class VocabularyDownload : public testing::SyncFixture {
 protected:
  // Serves the vocabulary of `era` for `universe` and returns its entry.
  Json serve(const std::string& universe, std::int64_t era = 4) {
    return store_file(vocabulary_path(universe), json_text(vocabulary(era, universe)));
  }
  // A manifest of era 4 over `files`, sharing its JSON with `data_`.
  Manifest manifest_over(const Json& files) {
    data_ = std::make_shared<Json>(manifest(4, 1, files));
    return Manifest(data_);
  }
  void put_vocabulary(const std::string& universe, std::int64_t era = 4) {
    put_local(vocabulary_path(universe), json_text(vocabulary(era, universe)));
  }
  std::vector<std::string> warnings() const {
    std::vector<std::string> out;
    for (const LogRecord& r : log_.records()) if (r.level == LogLevel::warning) out.push_back(r.message);
    return out;
  }
  static constexpr const char* kRepaired = "Manifest vocabulary metadata repaired for ";

  std::shared_ptr<SyncManager> manager_ = make_manager();
  std::shared_ptr<Json> data_;
};

// Valid local files are kept, become the manager's vocabularies in sorted
// order, and complete an incomplete entry in the JSON the manifest shares.
TEST_F(VocabularyDownload, ValidLocalFilesAreKeptAndCompleteTheirEntries) {
  Json files = Json::object();
  for (const char* universe : {"gamma", "beta", "alpha"}) {
    files[vocabulary_path(universe)] = serve(universe);
    put_vocabulary(universe);
  }
  const Json right = files;
  files[vocabulary_path("beta")]["sha256"] = "";
  files[vocabulary_path("gamma")]["size_bytes"] = 3;  // the digest alone does not do
  Manifest m = manifest_over(files);

  EXPECT_FALSE(manager_->_download_vocabulary(m));
  EXPECT_TRUE(store_.requests().empty());
  ASSERT_NE(manager_->_vocabulary.load(), nullptr);
  EXPECT_EQ(*manager_->_vocabulary.load(), (Json{{"alpha", vocabulary(4, "alpha")}, {"beta", vocabulary(4, "beta")},
                                                 {"gamma", vocabulary(4, "gamma")}}));
  EXPECT_EQ(warnings().size(), 2u);
  EXPECT_EQ(logged_starting(kRepaired + vocabulary_path("beta") + ": "), 1u);
  EXPECT_EQ((*data_)["files"], right);
}

// One universe, its entry, local file and served bytes spoiled in turn:
// only bytes that validate stay, and a stated digest is never overruled.
TEST_F(VocabularyDownload, OnlyBytesThatValidateStayAndAStatedDigestIsNeverOverruled) {
  const std::string p = vocabulary_path("u");
  const std::string bytes = json_text(vocabulary(4, "u"));
  const std::string stated(64, 'a');
  const std::string refusal = "Refusing to repair vocabulary manifest hash for " + p + ": expected " + stated +
                              ", got " + _sha256(bytes);
  const std::string revalidated = "Local vocabulary " + p + " failed validation; re-downloading: ";
  struct Case {
    const char* name;
    std::function<void(Json&)> edit_entry;
    std::optional<std::int64_t> local_era;  // a local file of that era
    std::int64_t served_era;
    bool wrong_bytes;
    std::string failure;  // a prefix; "ok" for success
    bool file_stays;      // this era's bytes end up at p
    std::string logged;   // a prefix of the one warning, or none
    std::string logged_end = "";
  };
  const Case cases[] = {
      {"stated digest", [&](Json& e) { e["sha256"] = stated; }, 4, 4, false, "IntegrityError: " + refusal, true,
       revalidated + refusal},
      // The staged file was whole after the first attempt; the resumes
      // asked past its end, and the repair tells why.
      {"overstated size", [&](Json& e) { e["size_bytes"] = bytes.size() + 10; }, std::nullopt, 4, false, "ok", true,
       kRepaired + p + ": ", "; Download failed for " + p + " after 3 attempts: Download failed for " + p + ": HTTP 416"},
      {"wrong bytes", [](Json&) {}, std::nullopt, 4, true, "SyncError: vocabulary.json is not valid JSON: ", false,
       ""},
      {"local of another era", [](Json&) {}, 3, 4, false, "ok", true, revalidated},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    remove_file(path(p));
    store_.clear_faults();
    log_.clear();
    const Json served = serve("u", c.served_era);
    Json entry = served;
    c.edit_entry(entry);
    if (c.local_era) put_vocabulary("u", *c.local_era);
    if (c.wrong_bytes) store_.fault("/bucket/" + p, Fault{.wrong_bytes = true});
    Manifest m = manifest_over(Json{{p, entry}});
    manager_ = make_manager();

    const std::string failure = outcome([&] { manager_->_download_vocabulary(m); });
    EXPECT_TRUE(failure.starts_with(c.failure)) << failure;
    EXPECT_FALSE(path_exists(path(p) + ".tmp"));
    EXPECT_EQ(path_exists(path(p)) && read_file(path(p)) == bytes, c.file_stays);
    EXPECT_EQ(manager_->_vocabulary.load() != nullptr, c.failure == "ok");
    // The entry is completed from validated bytes only, never overruled.
    EXPECT_EQ((*data_)["files"][p], c.failure == "ok" ? served : entry);
    EXPECT_EQ(warnings().size(), c.logged.empty() ? 0u : 1u);
    if (!c.logged.empty() && !warnings().empty()) {
      EXPECT_TRUE(warnings()[0].starts_with(c.logged) && warnings()[0].ends_with(c.logged_end)) << warnings()[0];
    }
  }
}

TEST_F(VocabularyDownload, AFailingUniverseStopsTheWorkAndKeepsWhatCameBefore) {
  Json files = Json::object();
  files[vocabulary_path("alpha")] = serve("alpha");
  files[vocabulary_path("beta")] = serve("beta");
  store_.fault("/bucket/" + vocabulary_path("beta"), Fault{.status = 404});
  Manifest m = manifest_over(files);

  EXPECT_THROW(manager_->_download_vocabulary(m), SyncError);
  EXPECT_TRUE(path_exists(path(vocabulary_path("alpha"))));
  EXPECT_FALSE(path_exists(path(vocabulary_path("beta"))));
  EXPECT_FALSE(path_exists(path(vocabulary_path("beta")) + ".tmp"));
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);

  Manifest none = manifest_over(Json{{"features/a.arrow", Json::object()}});
  EXPECT_EQ(outcome([&] { manager_->_download_vocabulary(none); }),
            "SyncError: manifest is missing per-universe vocabulary.json entries");
}

}  // namespace
}  // namespace quillmarsh::sync
