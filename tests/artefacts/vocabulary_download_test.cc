// Bringing vocabularies down, keeping valid local ones, and the repair of
// incomplete manifest entries from validated bytes.
#include <gtest/gtest.h>

#include "sync/artefacts/vocabulary.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/sync_fixture.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync {
namespace {

using testing::Fault;
using testing::outcome;
using testing::TempDir;
using testing::vocabulary;
using testing::vocabulary_path;

class VocabularyDownload : public testing::SyncFixture {
 protected:
  void SetUp() override {
    SyncFixture::SetUp();
    manager_ = make_manager();
  }

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
    for (const LogRecord& r : log_.records()) {
      if (r.level == LogLevel::warning) out.push_back(r.message);
    }
    return out;
  }
  static constexpr const char* kRepaired = "Manifest vocabulary metadata repaired for ";

  std::shared_ptr<SyncManager> manager_;
  std::shared_ptr<Json> data_;
};

TEST_F(VocabularyDownload, ValidLocalFilesAreKeptAndBecomeTheManagersVocabularies) {
  Json files = Json::object();
  files[vocabulary_path("beta")] = serve("beta");
  files[vocabulary_path("alpha")] = serve("alpha");
  put_vocabulary("alpha");
  put_vocabulary("beta");
  Manifest m = manifest_over(files);

  EXPECT_FALSE(manager_->_download_vocabulary(m));
  EXPECT_TRUE(store_.requests().empty());
  EXPECT_TRUE(warnings().empty());
  const auto vocabularies = manager_->_vocabulary.load();
  ASSERT_NE(vocabularies, nullptr);
  EXPECT_EQ(*vocabularies, (Json{{"alpha", vocabulary(4, "alpha")}, {"beta", vocabulary(4, "beta")}}));
  EXPECT_EQ((*data_)["files"], files);  // entries in agreement stay as they were
}

TEST_F(VocabularyDownload, AValidLocalFileCompletesAnIncompleteEntryInTheSharedJson) {
  const std::string p = vocabulary_path("u");
  const Json right = serve("u");
  put_vocabulary("u");
  const std::pair<const char*, Json> cases[] = {
      {"empty digest", {{"sha256", ""}, {"size_bytes", right["size_bytes"]}, {"kind", "vocabulary"}}},
      {"right digest, wrong size", {{"sha256", right["sha256"]}, {"size_bytes", 3}, {"kind", "vocabulary"}}},
      {"neither", {{"kind", "vocabulary"}}},
  };
  for (const auto& [name, entry] : cases) {
    SCOPED_TRACE(name);
    log_.clear();
    Manifest m = manifest_over(Json{{p, entry}});
    EXPECT_FALSE(manager_->_download_vocabulary(m));
    EXPECT_EQ(logged_starting(kRepaired + p + ": "), 1u);
    // The JSON object that manifest.json is later written from holds it.
    Json expected = entry;
    expected["sha256"] = right["sha256"];
    expected["size_bytes"] = right["size_bytes"];
    EXPECT_EQ((*data_)["files"][p], expected);
  }
  EXPECT_TRUE(store_.requests().empty());
}

TEST_F(VocabularyDownload, AStatedDigestIsNeverOverruled) {
  const std::string p = vocabulary_path("u");
  const std::string bytes = json_text(vocabulary(4, "u"));
  Json entry = serve("u");
  const std::string stated(64, 'a');
  entry["sha256"] = stated;
  put_vocabulary("u");
  Manifest m = manifest_over(Json{{p, entry}});

  const std::string refusal = "Refusing to repair vocabulary manifest hash for " + p + ": expected " + stated +
                              ", got " + _sha256(bytes);
  EXPECT_EQ(outcome([&] { manager_->_download_vocabulary(m); }), "IntegrityError: " + refusal);
  // The local file was judged, then fetched afresh; the fetch was refused
  // as well, and what it fetched is gone.
  EXPECT_EQ(warnings().front(), "Local vocabulary " + p + " failed validation; re-downloading: " + refusal);
  EXPECT_GE(store_.request_count("/bucket/" + p), 1u);
  EXPECT_FALSE(path_exists(path(p) + ".tmp"));
  EXPECT_EQ(read_file(path(p)), bytes);
  EXPECT_EQ((*data_)["files"][p], entry);
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);
}

TEST_F(VocabularyDownload, AnOverstatedSizeIsRepairedFromTheFetchedFile) {
  const std::string p = vocabulary_path("u");
  const std::string bytes = json_text(vocabulary(4, "u"));
  Json entry = serve("u");
  entry["size_bytes"] = bytes.size() + 10;
  Manifest m = manifest_over(Json{{p, entry}});

  EXPECT_TRUE(manager_->_download_vocabulary(m));
  EXPECT_EQ(read_file(path(p)), bytes);
  EXPECT_FALSE(path_exists(path(p) + ".tmp"));
  EXPECT_EQ((*data_)["files"][p]["size_bytes"], bytes.size());
  // The log line tells why: the download's own failure. The staged file was
  // whole after the first attempt; the resumes asked past its end.
  ASSERT_EQ(logged_starting(kRepaired + p + ": "), 1u);
  EXPECT_TRUE(warnings()[0].ends_with("; Download failed for " + p + " after 3 attempts: Download failed for " + p +
                                      ": HTTP 416"))
      << warnings()[0];
}

TEST_F(VocabularyDownload, OnlyBytesThatValidateStay) {
  const std::string p = vocabulary_path("u");
  // Wrong bytes end the download with IntegrityError; the staged file is judged and goes.
  Manifest spoiled = manifest_over(Json{{p, serve("u")}});
  store_.fault("/bucket/" + p, Fault{.wrong_bytes = true});
  const std::string failure = outcome([&] { manager_->_download_vocabulary(spoiled); });
  EXPECT_TRUE(failure.starts_with("SyncError: vocabulary.json is not valid JSON: ")) << failure;
  EXPECT_FALSE(path_exists(path(p) + ".tmp"));
  EXPECT_FALSE(path_exists(path(p)));
  store_.clear_faults();

  // A complete download of another era is removed.
  Manifest other_era = manifest_over(Json{{p, serve("u", 3)}});
  EXPECT_EQ(outcome([&] { manager_->_download_vocabulary(other_era); }),
            "EraError: vocabulary.json era_id=3 does not match manifest era_id=4");
  EXPECT_FALSE(path_exists(path(p)));
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);

  // A local file of another era is replaced.
  Manifest m = manifest_over(Json{{p, serve("u")}});
  put_vocabulary("u", 3);
  EXPECT_TRUE(manager_->_download_vocabulary(m));
  EXPECT_EQ(logged_starting("Local vocabulary " + p + " failed validation; re-downloading: "), 1u);
  EXPECT_EQ(read_file(path(p)), json_text(vocabulary(4, "u")));
  EXPECT_EQ((*manager_->_vocabulary.load())["u"]["era_id"], 4);
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

TEST_F(VocabularyDownload, AStagingDirectoryReceivesTheFilesButNotTheManager) {
  const std::string p = vocabulary_path("u");
  Json entry = serve("u");
  const Json right = entry;
  entry.erase("sha256");
  Manifest m = manifest_over(Json{{p, entry}});
  TempDir staging;

  EXPECT_TRUE(manager_->_download_vocabulary(m, staging.path()));
  EXPECT_EQ(read_file(staging / p), json_text(vocabulary(4, "u")));
  EXPECT_FALSE(path_exists(path(p)));
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);
  EXPECT_EQ((*data_)["files"][p], right);  // the repair reaches the same manifest
}

TEST_F(VocabularyDownload, APassBringsTwoUniversesAndWritesTheRepairedManifest) {
  Json files = Json::object();
  files["features/alpha/x.arrow"] = store_file("features/alpha/x.arrow", "feature bytes", "feature");
  const Json alpha = vocabulary(4, "alpha", {{"t_signal_is", 11}, {"t_strategy_is", 12}, {"n_instruments", 13}});
  const Json beta = vocabulary(4, "beta", {{"t_signal_is", 21}, {"t_strategy_is", 22}, {"n_instruments", 23}});
  files[vocabulary_path("beta")] = store_file(vocabulary_path("beta"), json_text(beta));
  files[vocabulary_path("beta")].erase("sha256");  // the server left the digest out
  files[vocabulary_path("alpha")] = store_file(vocabulary_path("alpha"), json_text(alpha));
  const Json m = manifest(4, 1, files);
  publish(m);
  publish_seed(4);

  const SyncResult result = manager_->sync();
  EXPECT_TRUE(result.vocabulary_downloaded);
  // The first universe in sorted order speaks for all.
  EXPECT_EQ(result.t_signal_is, 11);
  EXPECT_EQ(result.t_strategy_is, 12);
  EXPECT_EQ(result.n_instruments, 13);
  EXPECT_EQ(result.bytes_downloaded, 13);  // vocabularies do not count
  EXPECT_EQ(read_file(path(vocabulary_path("alpha"))), json_text(alpha));
  EXPECT_EQ(read_file(path(vocabulary_path("beta"))), json_text(beta));
  Json written = m;
  written["files"][vocabulary_path("beta")]["sha256"] = _sha256(json_text(beta));
  EXPECT_EQ(read_file(path("manifest.json")), json_text(written));
  // A pass with everything in place still reports what the vocabularies say.
  EXPECT_EQ(manager_->sync().n_instruments, 13);
}

}  // namespace
}  // namespace quillmarsh::sync
