// The faults other suites (and `qmsync serve --fault`) inject: were one of
// them to serve something else, a test could pass for the wrong reason. The
// ranges the library asks for, and the faults the download suites meet
// (cuts, wrong bytes, stalls, odd ranges, redirects, delays), are checked
// there by the exact ranges and bytes the client gets.
#include "tests/support/test_server.h"

#include <gtest/gtest.h>

#include <optional>
#include <tuple>
#include <string>

#include "server/publisher.h"
#include "server/reference_server.h"
#include "sync/engine/curl_session.h"
#include "sync/errors.h"
#include "sync/support/posix_file.h"
#include "tests/support/outcome.h"
#include "tests/support/sample_data.h"
#include "tests/support/temp_dir.h"

namespace quillmarsh::sync::testing {
namespace {

TEST(FaultText, ReadsWhatServeTakesAndNamesWhatItRefuses) {
  const auto fields = [](const server::Fault& f) {
    return std::tie(f.status, f.body, f.cut_after_bytes, f.wrong_bytes, f.delay_before_head_s, f.stall_after_bytes,
                    f.stall_s, f.ignore_range, f.half_range, f.empty_206, f.redirect_to, f.times, f.skip);
  };
  // The body is the rest, commas and all.
  EXPECT_EQ(fields(server::parse_fault("status=503,cut=10,wrong-bytes,delay=0.5,stall=7@2.5,ignore-range,half-range,"
                                       "empty-206,times=2,skip=1,body=a,b")),
            fields({.status = 503, .body = "a,b", .cut_after_bytes = 10, .wrong_bytes = true, .delay_before_head_s = 0.5,
                    .stall_after_bytes = 7, .stall_s = 2.5, .ignore_range = true, .half_range = true, .empty_206 = true,
                    .times = 2, .skip = 1}));
  EXPECT_EQ(server::parse_fault("redirect=https://h/x?a=1,b=2").redirect_to, "https://h/x?a=1,b=2");
  const std::pair<const char*, std::string> refused[] = {
      {"cut", "ValueError: fault cut needs a number that is not negative, not ''"},
      {"cut=-1", "ValueError: fault cut needs a number that is not negative, not '-1'"},
      {"cut=1k", "ValueError: fault cut needs a number that is not negative, not '1k'"},
      {"delay=soon", "ValueError: fault delay needs a number that is not negative, not 'soon'"},
      {"stall=5", "ValueError: fault stall needs BYTES@SECONDS, not '5'"},
      {"teapot", "ValueError: unknown fault 'teapot': status=N, body=TEXT, cut=BYTES, wrong-bytes, delay=SECONDS, "
                 "stall=BYTES@SECONDS, ignore-range, half-range, empty-206, redirect=URL, times=N, skip=N"},
  };
  for (const auto& [text, failure] : refused) EXPECT_EQ(outcome([&] { server::parse_fault(text); }), failure);
}

TEST(FaultText, ReferenceServerMisbehavesOnBothSites) {
  TempDir tmp;
  make_dirs(tmp / "source/features/u");
  write_file(tmp / "source/features/u/vocabulary.json", vocabulary_text(1, "u"));
  write_file(tmp / "source/features/u/digits.txt", "0123456789");
  server::publish_era({tmp / "source", tmp / "root", 1, 1, std::nullopt, true});
  server::ReferenceServer server({tmp / "root", 0, 0, [] { return std::string("t"); }, 0,
                                  {{"/era_1/features/*", {.cut_after_bytes = 3, .times = 1}},
                                   {"/era_1/features/u/vocabulary.json", {.status = 500}},
                                   {"/data/manifest", {.status = 503, .times = 1, .skip = 1}},
                                   {"/data/shuffle", {.cut_after_bytes = 10}}}});
  set_extra_ca_file(server.tls().ca_file);
  const auto get = [](const std::string& url, std::vector<std::pair<std::string, std::string>> headers = {}) {
    return open_http_request({url, std::move(headers)}, 10);
  };
  const std::string digits = server.files_url() + "/era_1/features/u/digits.txt";
  EXPECT_EQ(get(digits).body, "012");
  EXPECT_EQ(get(digits).body, "0123456789");
  // An exact path wins over a prefix.
  EXPECT_EQ(get(server.files_url() + "/era_1/features/u/vocabulary.json").status, 500);
  // The API's answers meet the same faults, the token still checked.
  std::vector<int> statuses;
  for (const char* token : {"Bearer t", "Bearer t", "Bearer t", "Bearer x"}) {
    statuses.push_back(get(server.api_url() + "/data/manifest", {{"Authorization", token}}).status);
  }
  EXPECT_EQ(statuses, (std::vector<int>{200, 503, 200, 401}));
  EXPECT_EQ(get(server.api_url() + "/data/shuffle", {{"Authorization", "Bearer t"}}).body.size(), 10u);
  set_extra_ca_file(std::nullopt);
}

}  // namespace
}  // namespace quillmarsh::sync::testing
