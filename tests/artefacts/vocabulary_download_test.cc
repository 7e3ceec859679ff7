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
using testing::seed_bytes;
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
  void put_local(const std::string& universe, std::int64_t era = 4, const std::string& root = "") {
    const std::string base = root.empty() ? dir_.path() : root;
    make_dirs(base + "/features/" + universe);
    write_file(base + "/" + vocabulary_path(universe), json_text(vocabulary(era, universe)));
  }
  std::vector<std::string> warnings() const {
    std::vector<std::string> out;
    for (const LogRecord& r : log_.records()) {
      if (r.level == LogLevel::warning) out.push_back(r.message);
    }
    return out;
  }
  std::string repaired_line(const std::string& file_path, const std::string& expected_sha,
                            const std::string& expected_size, const std::string& bytes, const std::string& reason) {
    return "Manifest vocabulary metadata repaired for " + file_path + ": expected sha=" + expected_sha +
           " size=" + expected_size + ", actual sha=" + _sha256(bytes) + " size=" + std::to_string(bytes.size()) +
           "; " + reason;
  }

  std::shared_ptr<SyncManager> manager_;
  std::shared_ptr<Json> data_;
};

TEST_F(VocabularyDownload, ValidLocalFilesAreKeptAndBecomeTheManagersVocabularies) {
  Json files = Json::object();
  files[vocabulary_path("beta")] = serve("beta");
  files[vocabulary_path("alpha")] = serve("alpha");
  put_local("alpha");
  put_local("beta");
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
  const std::string bytes = json_text(vocabulary(4, "u"));
  const Json right = serve("u");
  put_local("u");
  struct Case {
    const char* name;
    Json entry;
    std::string shown_sha, shown_size;
  };
  const Case cases[] = {
      {"empty digest", {{"sha256", ""}, {"size_bytes", right["size_bytes"]}, {"kind", "vocabulary"}}, "",
       std::to_string(bytes.size())},
      {"right digest, wrong size", {{"sha256", right["sha256"]}, {"size_bytes", 3}, {"kind", "vocabulary"}},
       _sha256(bytes), "3"},
      {"neither", {{"kind", "vocabulary"}}, "None", "None"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    Manifest m = manifest_over(Json{{p, c.entry}});
    EXPECT_FALSE(manager_->_download_vocabulary(m));
    EXPECT_EQ(warnings(), std::vector<std::string>{repaired_line(p, c.shown_sha, c.shown_size, bytes,
                                                                 "validated vocabulary bytes")});
    // The JSON object that manifest.json is later written from holds it.
    Json expected = c.entry;
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
  put_local("u");
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

TEST_F(VocabularyDownload, ALocalFileOfAnotherEraIsReplaced) {
  const std::string p = vocabulary_path("u");
  Manifest m = manifest_over(Json{{p, serve("u")}});
  put_local("u", 3);

  EXPECT_TRUE(manager_->_download_vocabulary(m));
  EXPECT_EQ(warnings(), std::vector<std::string>{"Local vocabulary " + p + " failed validation; re-downloading: "
                                                 "vocabulary.json era_id=3 does not match manifest era_id=4"});
  EXPECT_EQ(read_file(path(p)), json_text(vocabulary(4, "u")));
  EXPECT_EQ((*manager_->_vocabulary.load())["u"]["era_id"], 4);
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
  const std::string why = "Download failed for " + p + " after 3 attempts: Download failed for " + p + ": HTTP 416";
  EXPECT_EQ(warnings(), std::vector<std::string>{repaired_line(p, _sha256(bytes), std::to_string(bytes.size() + 10),
                                                               bytes, why)});
}

TEST_F(VocabularyDownload, FetchedBytesThatDoNotValidateNeverStay) {
  const std::string p = vocabulary_path("u");
  {
    SCOPED_TRACE("wrong bytes end the download with IntegrityError; the staged file is judged and goes");
    Manifest m = manifest_over(Json{{p, serve("u")}});
    store_.fault("/bucket/" + p, Fault{.wrong_bytes = true});
    const std::string failure = outcome([&] { manager_->_download_vocabulary(m); });
    EXPECT_TRUE(failure.starts_with("SyncError: vocabulary.json is not valid JSON: ")) << failure;
    EXPECT_FALSE(path_exists(path(p) + ".tmp"));
    EXPECT_FALSE(path_exists(path(p)));
    store_.clear_faults();
  }
  {
    SCOPED_TRACE("a complete download of another era is removed");
    Manifest m = manifest_over(Json{{p, serve("u", 3)}});
    EXPECT_EQ(outcome([&] { manager_->_download_vocabulary(m); }),
              "EraError: vocabulary.json era_id=3 does not match manifest era_id=4");
    EXPECT_FALSE(path_exists(path(p)));
  }
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);
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

  // An empty directory counts as none for the files, not for the manager.
  EXPECT_TRUE(manager_->_download_vocabulary(m, std::string()));
  EXPECT_TRUE(path_exists(path(p)));
  EXPECT_EQ(manager_->_vocabulary.load(), nullptr);
}

TEST_F(VocabularyDownload, APassBringsTwoUniversesAndTheSeedAndWritesTheRepairedManifest) {
  Json files = Json::object();
  files["features/alpha/x.arrow"] = store_file("features/alpha/x.arrow", "feature bytes", "feature");
  const Json alpha = vocabulary(4, "alpha", {{"t_signal_is", 11}, {"t_strategy_is", 12}, {"n_instruments", 13}});
  const Json beta = vocabulary(4, "beta", {{"t_signal_is", 21}, {"t_strategy_is", 22}, {"n_instruments", 23}});
  files[vocabulary_path("beta")] = store_file(vocabulary_path("beta"), json_text(beta));
  files[vocabulary_path("beta")].erase("sha256");  // the server left the digest out
  files[vocabulary_path("alpha")] = store_file(vocabulary_path("alpha"), json_text(alpha));
  const Json m = manifest(4, 1, files);
  publish(m);
  api_.put("/data/shuffle", seed_bytes(4), {{"X-Era-Id", "4"}});

  const SyncResult result = manager_->sync();
  EXPECT_TRUE(result.vocabulary_downloaded);
  EXPECT_TRUE(result.shuffle_seed_downloaded);
  // The first universe in sorted order speaks for all.
  EXPECT_EQ(result.t_signal_is, 11);
  EXPECT_EQ(result.t_strategy_is, 12);
  EXPECT_EQ(result.n_instruments, 13);
  EXPECT_EQ(result.n_features, 1);
  EXPECT_EQ(result.bytes_downloaded, 13);  // vocabularies do not count
  EXPECT_EQ(read_file(path(vocabulary_path("alpha"))), json_text(alpha));
  EXPECT_EQ(read_file(path(vocabulary_path("beta"))), json_text(beta));
  EXPECT_EQ(read_file(path("shuffle_seed.enc")), seed_bytes(4));
  EXPECT_EQ(read_file(path("shuffle_seed.enc.meta.json")), "{\"era_id\": 4}");
  EXPECT_EQ(*manager_->_vocabulary.load(), (Json{{"alpha", alpha}, {"beta", beta}}));

  Json written = m;
  written["files"][vocabulary_path("beta")]["sha256"] = _sha256(json_text(beta));
  EXPECT_EQ(read_file(path("manifest.json")), json_text(written));

  // Everything in place: the next pass is the one version request.
  api_.clear_requests();
  const SyncResult again = manager_->sync();
  EXPECT_EQ(api_.requests().size(), 1u);
  EXPECT_FALSE(again.vocabulary_downloaded);
  EXPECT_EQ(again.n_instruments, 13);
}

}  // namespace
}  // namespace quillmarsh::sync
