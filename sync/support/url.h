// Splitting a URL into scheme, network location, path, query and fragment.
// One splitter for the whole component, so that every check on a server's
// URLs agrees on which host a URL names.
#ifndef QUILLMARSH_SYNC_SUPPORT_URL_H_
#define QUILLMARSH_SYNC_SUPPORT_URL_H_

#include <optional>
#include <string>
#include <string_view>

namespace quillmarsh::sync {

struct UrlParts {
  std::string scheme;    // lower case; empty when the URL has none
  std::string netloc;    // as written, e.g. "user@Host:8443"; empty without "//"
  std::string path;
  std::string query;     // without the "?"
  std::string fragment;  // without the "#"
};

// Splits scheme://netloc/path?query#fragment. Leading control characters and
// spaces are dropped and tab, CR and LF removed anywhere; the rest is kept as
// written. Fails with ValueError on unbalanced or malformed IPv6 brackets.
UrlParts split_url(std::string_view url);

// The host of parts.netloc in ASCII lower case, without user information,
// port or IPv6 brackets (an IPv6 zone keeps its case). Absent when empty.
std::optional<std::string> url_hostname(const UrlParts& parts);

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_URL_H_
