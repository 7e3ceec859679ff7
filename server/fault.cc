#include "server/fault.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "sync/errors.h"

namespace quillmarsh::sync::server {
namespace {

template <typename T>
T number_of(std::string_view key, std::string_view text) {
  T v{};
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || v < T{}) {
    throw ValueError("fault " + std::string(key) + " needs a number that is not negative, not '" + std::string(text) +
                     "'");
  }
  return v;
}

}  // namespace

bool HeaderNameLess::operator()(const std::string& a, const std::string& b) const {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
    return std::tolower(x) < std::tolower(y);
  });
}

Fault parse_fault(std::string_view text) {
  Fault f;
  while (!text.empty()) {
    // body= and redirect= take the rest, commas included.
    std::string_view item = text;
    const bool rest = item.starts_with("body=") || item.starts_with("redirect=");
    const std::size_t comma = rest ? std::string_view::npos : item.find(',');
    item = item.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    const std::size_t eq = item.find('=');
    const std::string_view key = item.substr(0, eq);
    const std::string_view value = eq == std::string_view::npos ? std::string_view() : item.substr(eq + 1);
    if (key == "status") {
      f.status = number_of<int>(key, value);
    } else if (key == "body") {
      f.body = std::string(value);
    } else if (key == "cut") {
      f.cut_after_bytes = number_of<std::size_t>(key, value);
    } else if (key == "wrong-bytes") {
      f.wrong_bytes = true;
    } else if (key == "delay") {
      f.delay_before_head_s = number_of<double>(key, value);
    } else if (key == "stall") {
      const std::size_t at = value.find('@');
      if (at == std::string_view::npos) {
        throw ValueError("fault stall needs BYTES@SECONDS, not '" + std::string(value) + "'");
      }
      f.stall_after_bytes = number_of<std::size_t>(key, value.substr(0, at));
      f.stall_s = number_of<double>(key, value.substr(at + 1));
    } else if (key == "ignore-range") {
      f.ignore_range = true;
    } else if (key == "half-range") {
      f.half_range = true;
    } else if (key == "empty-206") {
      f.empty_206 = true;
    } else if (key == "redirect") {
      f.redirect_to = std::string(value);
    } else if (key == "times") {
      f.times = number_of<int>(key, value);
    } else if (key == "skip") {
      f.skip = number_of<int>(key, value);
    } else {
      throw ValueError("unknown fault '" + std::string(key) +
                       "': status=N, body=TEXT, cut=BYTES, wrong-bytes, delay=SECONDS, stall=BYTES@SECONDS, "
                       "ignore-range, half-range, empty-206, redirect=URL, times=N, skip=N");
    }
  }
  return f;
}

void FaultTable::set(const std::string& path, Fault f) {
  std::lock_guard<std::mutex> lock(mu_);
  if (f.times == 0) {
    faults_.erase(path);
  } else {
    faults_[path] = std::move(f);
  }
}

void FaultTable::clear(const std::string& path) {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.erase(path);
}

void FaultTable::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  faults_.clear();
}

std::optional<Fault> FaultTable::take(const std::string& path) {
  std::lock_guard<std::mutex> lock(mu_);
  auto it = faults_.find(path);
  if (it == faults_.end()) {
    // The longest prefix key wins.
    for (auto k = faults_.begin(); k != faults_.end(); ++k) {
      const std::string& key = k->first;
      if (key.ends_with('*') && path.starts_with(std::string_view(key).substr(0, key.size() - 1)) &&
          (it == faults_.end() || key.size() > it->first.size())) {
        it = k;
      }
    }
  }
  if (it == faults_.end()) return std::nullopt;
  if (it->second.skip > 0) {
    --it->second.skip;  // served normally; the fault waits its turn
    return std::nullopt;
  }
  Fault f = it->second;
  if (it->second.times > 0 && --it->second.times == 0) faults_.erase(it);
  return f;
}

}  // namespace quillmarsh::sync::server
