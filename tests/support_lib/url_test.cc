#include "sync/support/url.h"

#include <gtest/gtest.h>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

TEST(SplitUrl, SeparatesEveryPartDropsControlsAndChecksIpv6Brackets) {
  // Scheme, network location and path, each followed by "|".
  const std::pair<const char*, const char*> cases[] = {
      {"HTTPS://User:Pw@Host.Example:8443/a/B?q=1&r=/x#frag?not-query", "https|User:Pw@Host.Example:8443|/a/B|"},
      // Leading controls and blanks go, and tabs and newlines anywhere.
      {" \x01https://ho\tst.ex\r\nample/p ", "https|host.example|/p |"},
      {"data/files:x", "||data/files:x|"},  // "/" is no scheme character
      {"svn+ssh://h/p", "svn+ssh|h|/p|"},
      {"host:8080/p", "host||8080/p|"},
      {"//host:1/p", "|host:1|/p|"},
      {"https://u@[fe80::1%25eth0]/p", "https|u@[fe80::1%25eth0]|/p|"},
      {"https://[v1.fe]/p", "https|[v1.fe]|/p|"},
      {"https://h/p?x=[1", "https|h|/p|"},  // brackets in the query are not the host's business
  };
  for (const auto& [url, parts] : cases) {
    const UrlParts p = split_url(url);
    EXPECT_EQ(p.scheme + "|" + p.netloc + "|" + p.path + "|", parts) << url;
  }
  // The query and fragment are split off the path, which the rows check;
  // nothing reads them.
  for (const char* bad : {"https://[::1/p", "https://::1]/p", "https://x[::1]/p", "https://[::1]x/p",
                          "https://[127.0.0.1]/p", "https://[host]/p", "https://[v1.]/p"}) {
    EXPECT_THROW(split_url(bad), ValueError) << bad;
  }
}

TEST(UrlHostname, LowersHostAndDropsUserPortBrackets) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"https://Us@er:Pw@API.Example.COM:8443/p", "api.example.com"},
      {"http://[::FFFF:1]:80/", "::ffff:1"},
      {"http://[FE80::1%ETH0]/", "fe80::1%ETH0"},
      {"/just/a/path", std::nullopt},
      {"http://user@:80/", std::nullopt},
  };
  for (const auto& [url, host] : cases) EXPECT_EQ(url_hostname(split_url(url)), host) << url;
}

}  // namespace
}  // namespace quillmarsh::sync
