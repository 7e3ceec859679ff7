#include "sync/support/url.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>

#include "sync/errors.h"

namespace quillmarsh::sync {
namespace {

bool is_ascii_alpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool is_scheme_char(char c) {
  return is_ascii_alpha(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
}

std::string ascii_lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool is_hex_digit(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}

// "v" 1*HEXDIG "." 1*char, the future-address form allowed in brackets.
bool is_ipvfuture(std::string_view host) {
  std::size_t i = 1;
  while (i < host.size() && is_hex_digit(host[i])) ++i;
  return i > 1 && i + 1 < host.size() && host[i] == '.';
}

bool is_ipv6(std::string_view host) {
  const std::size_t percent = host.find('%');
  if (percent != std::string_view::npos) {
    const std::string_view zone = host.substr(percent + 1);
    if (zone.empty() || zone.find('%') != std::string_view::npos) return false;
    host = host.substr(0, percent);
  }
  const std::string address(host);
  unsigned char buf[16];
  return inet_pton(AF_INET6, address.c_str(), buf) == 1;
}

// Bracketed hosts must hold an IPv6 or future address, and nothing may stand
// between the brackets and the port; otherwise two parsers could disagree on
// which host a URL names.
void check_bracketed_netloc(std::string_view netloc) {
  const std::size_t at = netloc.rfind('@');
  const std::string_view host_port = at == std::string_view::npos ? netloc : netloc.substr(at + 1);
  std::string_view host;
  const std::size_t open = host_port.find('[');
  if (open != std::string_view::npos) {
    if (open != 0) throw ValueError("Invalid IPv6 URL");
    const std::string_view bracketed = host_port.substr(1);
    const std::size_t close = bracketed.find(']');
    host = bracketed.substr(0, close);
    if (close != std::string_view::npos) {
      const std::string_view after = bracketed.substr(close + 1);
      if (!after.empty() && after.front() != ':') throw ValueError("Invalid IPv6 URL");
    }
  } else {
    host = host_port.substr(0, host_port.find(':'));
  }
  if (!host.empty() && host.front() == 'v') {
    if (!is_ipvfuture(host)) throw ValueError("IPvFuture address is invalid");
  } else if (!is_ipv6(host)) {
    const std::string address(host);
    unsigned char buf[4];
    if (inet_pton(AF_INET, address.c_str(), buf) == 1) {
      throw ValueError("An IPv4 address cannot be in brackets");
    }
    throw ValueError("'" + address + "' does not appear to be an IPv4 or IPv6 address");
  }
}

}  // namespace

UrlParts split_url(std::string_view url) {
  std::size_t start = 0;
  while (start < url.size() && static_cast<unsigned char>(url[start]) <= 0x20) ++start;
  std::string rest;
  rest.reserve(url.size() - start);
  for (char c : url.substr(start)) {
    if (c != '\t' && c != '\r' && c != '\n') rest += c;
  }

  UrlParts parts;
  const std::size_t colon = rest.find(':');
  const std::string_view before_colon = std::string_view(rest).substr(0, colon);
  if (colon != std::string::npos && colon > 0 && is_ascii_alpha(rest[0]) &&
      std::all_of(before_colon.begin(), before_colon.end(), is_scheme_char)) {
    parts.scheme = ascii_lower(before_colon);
    rest.erase(0, colon + 1);
  }
  if (rest.starts_with("//")) {
    const std::size_t end = rest.find_first_of("/?#", 2);
    parts.netloc = rest.substr(2, end == std::string::npos ? std::string::npos : end - 2);
    rest.erase(0, end == std::string::npos ? rest.size() : end);
    const bool has_open = parts.netloc.find('[') != std::string::npos;
    const bool has_close = parts.netloc.find(']') != std::string::npos;
    if (has_open != has_close) throw ValueError("Invalid IPv6 URL");
    if (has_open) check_bracketed_netloc(parts.netloc);
  }
  if (const std::size_t hash = rest.find('#'); hash != std::string::npos) {
    parts.fragment = rest.substr(hash + 1);
    rest.erase(hash);
  }
  if (const std::size_t question = rest.find('?'); question != std::string::npos) {
    parts.query = rest.substr(question + 1);
    rest.erase(question);
  }
  parts.path = std::move(rest);
  return parts;
}

std::optional<std::string> url_hostname(const UrlParts& parts) {
  std::string_view host_port = parts.netloc;
  if (const std::size_t at = host_port.rfind('@'); at != std::string_view::npos) {
    host_port = host_port.substr(at + 1);
  }
  std::string_view host;
  if (const std::size_t open = host_port.find('['); open != std::string_view::npos) {
    const std::string_view bracketed = host_port.substr(open + 1);
    host = bracketed.substr(0, bracketed.find(']'));
  } else {
    host = host_port.substr(0, host_port.find(':'));
  }
  if (host.empty()) return std::nullopt;
  const std::size_t percent = host.find('%');
  if (percent == std::string_view::npos) return ascii_lower(host);
  return ascii_lower(host.substr(0, percent)) + std::string(host.substr(percent));
}

}  // namespace quillmarsh::sync
