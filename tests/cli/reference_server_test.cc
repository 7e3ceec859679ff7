// The reference server that `qmsync serve` runs, in process: what its two
// sites answer, read as raw HTTP exchanges.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "server/publisher.h"
#include "server/reference_server.h"
#include "sync/engine/curl_session.h"
#include "sync/engine/file_primitives.h"
#include "sync/support/posix_file.h"
#include "tests/support/sample_data.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync::testing {
namespace {

class ReferenceServerTest : public ::testing::Test {
 protected:
  // A source of one data file and its vocabulary, published as era 1.
  void SetUp() override {
    const std::string features = tmp_ / "source/features/u";
    make_dirs(features);
    write_file(features + "/vocabulary.json", vocabulary_text(1, "u"));
    write_file(features + "/digits.txt", "0123456789");
    server::publish_era({tmp_ / "source", tmp_ / "root", 1, 11, std::nullopt, false});
    server_ = std::make_unique<server::ReferenceServer>(
        server::ServeRequest{tmp_ / "root", 0, 0, [this] { return expected_token_; }});
    set_extra_ca_file(server_->tls().ca_file);
  }
  void TearDown() override { set_extra_ca_file(std::nullopt); }

  OpenedResponse get(const std::string& url, std::optional<std::string> token = "t0k",
                     std::optional<std::string> range = std::nullopt) {
    HttpRequest request{url, {}};
    if (token) request.headers.emplace_back("Authorization", "Bearer " + *token);
    if (range) request.headers.emplace_back("Range", *range);
    return open_http_request(request, 10);
  }

  TempDir tmp_;
  std::string expected_token_ = "t0k";
  std::unique_ptr<server::ReferenceServer> server_;
};

// The object store answers without a token, single ranges and nothing
// outside the era; the other forms of a range come from the parser the test
// server shares, and its own suite goes through them. The API wants the token
// of the moment, never an empty one. What the API serves of an era, and which
// era, the qmsync suite's passes and transition see through the client, which
// checks each document's era.
TEST_F(ReferenceServerTest, EachSiteAnswersOnlyWhatItShould) {
  const std::string file = server_->files_url() + "/era_1/features/u/digits.txt";
  EXPECT_EQ(get(file, std::nullopt).body, "0123456789");
  const OpenedResponse span = get(file, std::nullopt, "bytes=2-5");
  EXPECT_EQ(span.status, 206);
  EXPECT_EQ(span.body, "2345");
  EXPECT_EQ(span.headers.at("Content-Range"), "bytes 2-5/10");
  const OpenedResponse beyond = get(file, std::nullopt, "bytes=10-");
  EXPECT_EQ(beyond.status, 416);
  EXPECT_EQ(beyond.headers.at("Content-Range"), "bytes */10");
  // Decoded by the server into "../..", which must not climb out of the era.
  EXPECT_EQ(get(server_->files_url() + "/era_1/%2e%2e/%2e%2e/current.json", std::nullopt).status, 404);
  EXPECT_EQ(get(server_->files_url() + "/era_2/features/u/digits.txt", std::nullopt).status, 404);

  const std::string url = server_->api_url() + "/data/manifest/version";
  const auto status = [&](std::optional<std::string> token) { return get(url, token).status; };
  EXPECT_EQ(status("t0k"), 200);
  EXPECT_EQ(status("wrong"), 401);
  EXPECT_EQ(status(std::nullopt), 401);
  expected_token_ = "rotated";
  EXPECT_EQ(status("t0k"), 401);
  EXPECT_EQ(status("rotated"), 200);
  expected_token_ = "";
  EXPECT_EQ(status(""), 401);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
