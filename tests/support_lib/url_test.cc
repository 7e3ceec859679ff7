#include "sync/support/url.h"

#include <gtest/gtest.h>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

TEST(SplitUrl, SeparatesEveryPartAndDropsControls) {
  const UrlParts p = split_url("HTTPS://User:Pw@Host.Example:8443/a/B?q=1&r=/x#frag?not-query");
  EXPECT_EQ(p.scheme, "https");
  EXPECT_EQ(p.netloc, "User:Pw@Host.Example:8443");
  EXPECT_EQ(p.path, "/a/B");
  EXPECT_EQ(p.query, "q=1&r=/x");
  EXPECT_EQ(p.fragment, "frag?not-query");
  // Leading controls and blanks go, and tabs and newlines anywhere.
  const UrlParts q = split_url(" \x01https://ho\tst.ex\r\nample/p ");
  EXPECT_EQ(q.netloc, "host.example");
  EXPECT_EQ(q.path, "/p ");
}

TEST(SplitUrl, SchemeOnlyWhenTextBeforeColonIsOne) {
  struct Case {
    const char* url;
    const char* scheme;
    const char* netloc;
    const char* path;
  };
  const Case cases[] = {
      {"data/files:x", "", "", "data/files:x"},  // "/" is no scheme character
      {"svn+ssh://h/p", "svn+ssh", "h", "/p"},
      {"host:8080/p", "host", "", "8080/p"},
      {"//host:1/p", "", "host:1", "/p"},
  };
  for (const Case& c : cases) {
    const UrlParts p = split_url(c.url);
    EXPECT_EQ(p.scheme, c.scheme) << c.url;
    EXPECT_EQ(p.netloc, c.netloc) << c.url;
    EXPECT_EQ(p.path, c.path) << c.url;
  }
}

TEST(SplitUrl, ChecksIpv6Brackets) {
  EXPECT_EQ(split_url("https://[::1]:8443/p").netloc, "[::1]:8443");
  EXPECT_EQ(split_url("https://u@[fe80::1%25eth0]/p").netloc, "u@[fe80::1%25eth0]");
  EXPECT_EQ(split_url("https://[v1.fe]/p").netloc, "[v1.fe]");
  for (const char* bad : {"https://[::1/p", "https://::1]/p", "https://x[::1]/p", "https://[::1]x/p",
                          "https://[127.0.0.1]/p", "https://[host]/p", "https://[v1.]/p"}) {
    EXPECT_THROW(split_url(bad), ValueError) << bad;
  }
  // Brackets in the query are not the host's business.
  EXPECT_NO_THROW(split_url("https://h/p?x=[1"));
}

TEST(UrlHostname, LowersHostAndDropsUserPortBrackets) {
  EXPECT_EQ(url_hostname(split_url("https://Us@er:Pw@API.Example.COM:8443/p")), "api.example.com");
  EXPECT_EQ(url_hostname(split_url("http://[::FFFF:1]:80/")), "::ffff:1");
  EXPECT_EQ(url_hostname(split_url("http://[FE80::1%ETH0]/")), "fe80::1%ETH0");
  EXPECT_EQ(url_hostname(split_url("http://LocalHost")), "localhost");
  EXPECT_EQ(url_hostname(split_url("/just/a/path")), std::nullopt);
  EXPECT_EQ(url_hostname(split_url("http://user@:80/")), std::nullopt);
}

}  // namespace
}  // namespace quillmarsh::sync
