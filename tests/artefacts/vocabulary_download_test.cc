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

// The repaired entry is what the pass writes to manifest.json.
TEST_F(VocabularyDownload, APassWritesTheRepairedManifestAndReportsTheMetadata) {
  Json files = Json::object();
  files["features/u/x.arrow"] = store_file("features/u/x.arrow", "feature bytes", "feature");
  const Json u = vocabulary(4, "u", {{"t_signal_is", 11}, {"n_instruments", 13}});
  files[vocabulary_path("u")] = store_file(vocabulary_path("u"), json_text(u));
  files[vocabulary_path("u")].erase("sha256");  // the server left the digest out
  const Json m = manifest(4, 1, files);
  publish(m);
  publish_seed(4);

  const SyncResult result = manager_->sync();
  EXPECT_TRUE(result.vocabulary_downloaded);
  EXPECT_EQ(result.t_signal_is, 11);
  EXPECT_EQ(result.bytes_downloaded, 13);  // vocabularies do not count
  Json written = m;
  written["files"][vocabulary_path("u")]["sha256"] = _sha256(json_text(u));
  EXPECT_EQ(read_file(path("manifest.json")), json_text(written));
  // A pass with everything in place still reports what the vocabulary says.
  EXPECT_EQ(manager_->sync().n_instruments, 13);
}

}  // namespace
}  // namespace quillmarsh::sync
