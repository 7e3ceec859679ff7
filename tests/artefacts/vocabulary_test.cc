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

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::result_or_failure;
using testing::vocabulary;
using testing::vocabulary_path;

// A name is cleaned or refused, a path gives the universe of exactly three
// segments, and a parsed vocabulary is refused in the order of its tests.
// That whatever is accepted names one safe, stripped universe, of the era
// asked for, is the vocabulary fuzz target's property; the messages are
// pinned here.
TEST(VocabularyValidators, CleanOrRefuseInTheOrderOfTheirTests) {
  const std::string unsafe = "SyncError: named_universe must be a single safe path segment: ";
  const auto name = [](std::optional<std::string> n) { return [=] { return _validate_named_universe(n); }; };
  const auto from_path = [](const char* p) {
    return [=] { return _vocabulary_named_universe_from_path(p).value_or("<none>"); };
  };
  // A valid vocabulary of era 7 for "x", changed by `edit`, checked against era 7 and `universe`.
  const auto data = [](std::function<void(Json&)> edit, std::optional<std::string> universe = "x") {
    return [=] {
      Json v = vocabulary(7, "x");
      edit(v);
      _validate_vocabulary_data(v, 7, universe);
      return std::string("ok");
    };
  };
  const std::pair<std::function<std::string()>, std::string> cases[] = {
      {name("..."), "..."},
      {name(" \n "), "SyncError: named_universe is required"},
      {name(" . "), unsafe + "' . '"},  // the input as received, not the stripped name
      {from_path("features\\x\\vocabulary.json/"), "x"},
      {from_path("features/ x /vocabulary.json"), "x"},
      {from_path("/features/x/vocabulary.json"), "<none>"},  // refused by the path gate
      {from_path("features/a/b/vocabulary.json"), "<none>"},
      // A blank segment passes the path gate and fails as a name.
      {from_path("features/  /vocabulary.json"), "SyncError: named_universe is required"},
      {data([](Json& v) { v = Json::array({1}); }), "SyncError: vocabulary.json must contain a JSON object"},
      {data([](Json& v) { v.erase("metadata"); v.erase("features"); }),
       "SyncError: vocabulary.json missing required keys: ['features', 'metadata']"},
      // Era and universe both wrong: the era speaks.
      {data([](Json& v) { v["era_id"] = 8; v["named_universe"] = "y"; }),
       "EraError: vocabulary.json era_id=8 does not match manifest era_id=7"},
      {data([](Json& v) { v["named_universe"] = "y"; }),
       "SyncError: vocabulary.json named_universe does not match manifest path 'x'"},
      {data([](Json& v) { v["era_id"] = 7.0; }), "ok"},
      {data([](Json&) {}, "  x "), "ok"},
  };
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(result_or_failure(cases[i].first), cases[i].second) << "row " << i;
  }
}

// That undecodable bytes are refused, that EraError is kept for a complete
// object of another era and that what is accepted is the parsed object, of
// the era and universe asked for, are the vocabulary fuzz target's properties.
// Why a local file did not do is only logged before it is fetched again (the
// download table's "wrong bytes" row shows the message of bytes that are no
// JSON); that it is missing is checked here.
TEST(VocabularyFile, AMissingFileAndMismatchedFilesAreTold) {
  testing::TempDir dir;
  EXPECT_EQ(outcome([&] { _validate_vocabulary_file(dir / "absent.json", 7, "x"); }),
            "SyncError: vocabulary.json is missing");

  // A whole manifest's vocabularies: sorted, and the first bad file reported.
  const auto put = [&](const std::string& universe, const Json& vocabulary) {
    make_dirs(dir / ("features/" + universe));
    write_file(dir / vocabulary_path(universe), json_text(vocabulary));
  };
  // By universe in sorted order, or the failure.
  const auto validate = [&](const std::vector<std::string>& universes, Json era_id = 7) {
    Json files = Json{{"features/zz/data.arrow", Json::object()}};
    for (const std::string& u : universes) files[vocabulary_path(u)] = Json::object();
    const Manifest m(Json{{"era_id", era_id}, {"files", files}});
    return result_or_failure([&] { return json_text(_validate_manifest_vocabulary_files(dir.path(), m)); });
  };
  const Json alpha = vocabulary(7, "alpha", Json{{"n_instruments", 1}});
  const Json beta = vocabulary(7, "beta", Json{{"n_instruments", 2}});
  put("beta", beta);
  put("alpha", alpha);
  // An era held as text converts.
  EXPECT_EQ(validate({"beta", "alpha"}, "7"), json_text(Json{{"alpha", alpha}, {"beta", beta}}));

  put("beta", vocabulary(6, "beta"));
  put("alpha", vocabulary(7, "gamma"));
  EXPECT_EQ(validate({"beta", "alpha"}),
            "SyncError: vocabulary.json named_universe does not match manifest path 'alpha'");
  EXPECT_EQ(validate({"beta"}), "EraError: vocabulary.json era_id=6 does not match manifest era_id=7");
  EXPECT_EQ(validate({}), "SyncError: manifest is missing per-universe vocabulary.json entries");
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
  std::vector<std::string> warnings() const {
    std::vector<std::string> out;
    for (const LogRecord& r : log_.records()) if (r.level == LogLevel::warning) out.push_back(r.message);
    return out;
  }
  static constexpr const char* kRepaired = "Manifest vocabulary metadata repaired for ";

  std::shared_ptr<SyncManager> manager_ = make_manager();
  std::shared_ptr<Json> data_;
};

// One universe, its entry, local file and served bytes spoiled in turn:
// only bytes that validate stay, and a stated digest is never overruled.
// Several universes go through the same steps each; the qmsync suite's era
// has two.
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
      // A valid local file is kept, and completes an entry without a digest.
      {"local without a digest", [](Json& e) { e["sha256"] = ""; }, 4, 4, false, "ok", true, kRepaired + p + ": "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    remove_file(path(p));
    store_.clear_faults();
    log_.clear();
    const Json served = serve("u", c.served_era);
    Json entry = served;
    c.edit_entry(entry);
    if (c.local_era) put_local(p, json_text(vocabulary(*c.local_era, "u")));
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

}  // namespace
}  // namespace quillmarsh::sync
