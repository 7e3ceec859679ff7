#include "sync/paths/cached_digest.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <stdexcept>
#include <vector>

#include <simdjson.h>

namespace quillmarsh::sync {
namespace {

// The members of a written entry, in key order.
constexpr std::string_view kMembers[] = {"ctime_ns", "inode", "mtime_ns", "sha256", "size_bytes"};

std::optional<std::int64_t> plain_integer(const Json& value) {
  if (value.is_number_integer() && !value.is_number_unsigned()) return value.get<std::int64_t>();
  if (value.is_number_unsigned() && value.get<std::uint64_t>() <= std::numeric_limits<std::int64_t>::max()) {
    return static_cast<std::int64_t>(value.get<std::uint64_t>());
  }
  return std::nullopt;
}

// Puts the members of every object in `value` in key order. Comparing
// entries is order-sensitive, so an entry of another shape is kept in this
// one order. What is already in order is left as it stands.
void sort_members(Json& value) {
  if (value.is_array()) {
    for (Json& item : value) sort_members(item);
    return;
  }
  if (!value.is_object()) return;
  auto& object = value.get_ref<Json::object_t&>();
  for (auto& member : object) sort_members(member.second);
  const auto by_key = [](const auto& a, const auto& b) { return a.first < b.first; };
  if (std::is_sorted(object.begin(), object.end(), by_key)) return;
  std::vector<Json::object_t::value_type*> members;
  for (auto& member : object) members.push_back(&member);
  std::sort(members.begin(), members.end(), [&](const auto* a, const auto* b) { return by_key(*a, *b); });
  Json sorted = Json::object();
  auto& sorted_object = sorted.get_ref<Json::object_t&>();
  for (auto* member : members) sorted_object.emplace_back(member->first, std::move(member->second));
  value = std::move(sorted);
}

// The value of each lower-case hex digit, -1 for every other byte (upper
// case too: the written form is lower case only). A table, as a cache read
// converts 64 digits per entry.
constexpr std::array<std::int8_t, 256> kHexValue = [] {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  for (int c = '0'; c <= '9'; ++c) table[c] = static_cast<std::int8_t>(c - '0');
  for (int c = 'a'; c <= 'f'; ++c) table[c] = static_cast<std::int8_t>(c - 'a' + 10);
  return table;
}();

// The bytes of a digest spelled as 64 lower-case hex digits.
std::optional<std::array<std::uint8_t, 32>> digest_of_hex(std::string_view hex) {
  std::array<std::uint8_t, 32> out;
  if (hex.size() != 2 * out.size()) return std::nullopt;
  int invalid = 0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int high = kHexValue[static_cast<unsigned char>(hex[2 * i])];
    const int low = kHexValue[static_cast<unsigned char>(hex[2 * i + 1])];
    invalid |= high | low;  // negative once any digit is not one
    out[i] = static_cast<std::uint8_t>((high & 15) << 4 | (low & 15));
  }
  if (invalid < 0) return std::nullopt;
  return out;
}

void append_hex(std::string& out, const std::array<std::uint8_t, 32>& digest) {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (const std::uint8_t byte : digest) {
    out += kDigits[byte >> 4];
    out += kDigits[byte & 15];
  }
}

void append_integer(std::string& out, std::int64_t value) {
  char buf[24];
  const auto end = std::to_chars(buf, buf + sizeof buf, value).ptr;
  out.append(buf, end);
}

// Text that json_text would copy as it stands goes straight in.
void append_string(std::string& out, std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
  });
  if (plain) {
    out += '"';
    out += text;
    out += '"';
  } else {
    out += json_text(Json(std::string(text)));
  }
}

// The written shape as simdjson holds it; false for any other.
bool read_written_entry(simdjson::dom::element element, CachedDigest& entry) {
  simdjson::dom::object object;
  if (element.get_object().get(object) || object.size() != std::size(kMembers)) return false;
  unsigned seen = 0;
  for (const simdjson::dom::key_value_pair member : object) {
    const auto name = std::find(std::begin(kMembers), std::end(kMembers), member.key);
    if (name == std::end(kMembers)) return false;
    const unsigned bit = 1u << (name - std::begin(kMembers));
    if (seen & bit) return false;
    seen |= bit;
    if (*name == "sha256") {
      std::string_view sha;
      if (member.value.get_string().get(sha)) return false;
      const auto digest = digest_of_hex(sha);
      if (!digest) return false;
      entry.digest = *digest;
      continue;
    }
    // Only what JSON's reader would also call a plain integer.
    if (!member.value.is_int64()) return false;
    const std::int64_t value = member.value.get_int64().value_unsafe();
    if (*name == "ctime_ns") entry.ctime_ns = value;
    else if (*name == "inode") entry.inode = value;
    else if (*name == "mtime_ns") entry.mtime_ns = value;
    else entry.size_bytes = value;
  }
  return true;
}

// An entry of the written shape as JSON, members in key order.
Json written_json(std::int64_t size_bytes, std::int64_t mtime_ns, std::int64_t ctime_ns, std::int64_t inode,
                  std::string sha256) {
  Json entry = Json::object();
  auto& members = entry.get_ref<Json::object_t&>();
  members.emplace_back("ctime_ns", ctime_ns);
  members.emplace_back("inode", inode);
  members.emplace_back("mtime_ns", mtime_ns);
  members.emplace_back("sha256", std::move(sha256));
  members.emplace_back("size_bytes", size_bytes);
  return entry;
}

}  // namespace

CachedDigest::CachedDigest(std::int64_t size_bytes, std::int64_t mtime_ns, std::int64_t ctime_ns, std::int64_t inode,
                           std::string_view sha256)
    : size_bytes(size_bytes), mtime_ns(mtime_ns), ctime_ns(ctime_ns), inode(inode) {
  if (const auto bytes = digest_of_hex(sha256)) {
    digest = *bytes;
    return;
  }
  other = std::make_shared<const Json>(written_json(size_bytes, mtime_ns, ctime_ns, inode, std::string(sha256)));
}

std::string CachedDigest::sha256() const {
  if (other) {
    const auto sha = other->is_object() ? other->find("sha256") : other->end();
    return sha != other->end() && sha->is_string() ? sha->get<std::string>() : "";
  }
  std::string out;
  append_hex(out, digest);
  return out;
}

bool CachedDigest::has_digest(std::string_view sha256) const {
  const auto bytes = digest_of_hex(sha256);
  return !other && bytes && *bytes == digest;
}

CachedDigest::CachedDigest(Json entry) {
  const auto integer = [&](const char* key) -> std::optional<std::int64_t> {
    const auto it = entry.find(key);
    return it == entry.end() ? std::nullopt : plain_integer(*it);
  };
  if (entry.is_object() && entry.size() == std::size(kMembers)) {
    const auto c = integer("ctime_ns"), i = integer("inode"), m = integer("mtime_ns"), s = integer("size_bytes");
    const auto sha = entry.find("sha256");
    if (c && i && m && s && sha != entry.end() && sha->is_string() &&
        digest_of_hex(sha->get_ref<const std::string&>())) {
      *this = CachedDigest(*s, *m, *c, *i, sha->get_ref<const std::string&>());
      return;
    }
  }
  // Kept in key order, the order in which the file holds members.
  sort_members(entry);
  other = std::make_shared<const Json>(std::move(entry));
}

Json CachedDigest::json() const {
  if (other) return *other;
  return written_json(size_bytes, mtime_ns, ctime_ns, inode, sha256());
}

void CachedDigest::append_text(std::string& out) const {
  if (other) {
    out += json_text(*other);
    return;
  }
  out += "{\"ctime_ns\": ";
  append_integer(out, ctime_ns);
  out += ", \"inode\": ";
  append_integer(out, inode);
  out += ", \"mtime_ns\": ";
  append_integer(out, mtime_ns);
  out += ", \"sha256\": \"";
  append_hex(out, digest);
  out += '"';
  out += ", \"size_bytes\": ";
  append_integer(out, size_bytes);
  out += '}';
}

bool CachedDigest::operator==(const CachedDigest& that) const {
  if (other || that.other) return json() == that.json();
  return size_bytes == that.size_bytes && mtime_ns == that.mtime_ns && ctime_ns == that.ctime_ns &&
         inode == that.inode && digest == that.digest;
}

DigestCache::Slot* DigestCache::find_sorted(std::string_view path) {
  if (next_ < sorted_.size() && path_of(sorted_[next_]) == path) return &sorted_[next_++];
  const auto it = std::lower_bound(sorted_.begin(), sorted_.end(), path,
                                   [this](const Slot& slot, std::string_view p) { return path_of(slot) < p; });
  if (it == sorted_.end() || path_of(*it) != path) return nullptr;
  next_ = static_cast<std::size_t>(it - sorted_.begin()) + 1;
  return &*it;
}

const CachedDigest* DigestCache::find(std::string_view path) {
  if (Slot* slot = find_sorted(path)) return &slot->entry;
  if (added_.empty()) return nullptr;
  const auto it = added_.find(path);
  return it == added_.end() ? nullptr : &it->second;
}

bool DigestCache::set(std::string_view path, CachedDigest entry) {
  CachedDigest* held = nullptr;
  if (Slot* slot = find_sorted(path)) {
    held = &slot->entry;
  } else {
    const auto [it, inserted] = added_.try_emplace(std::string(path));
    if (inserted) {
      it->second = std::move(entry);
      return true;
    }
    held = &it->second;
  }
  if (*held == entry) return false;
  *held = std::move(entry);
  return true;
}

const CachedDigest& DigestCache::at(std::string_view path) {
  const CachedDigest* entry = find(path);
  if (!entry) throw std::out_of_range("no cached digest for " + std::string(path));
  return *entry;
}

void DigestCache::clear() {
  *this = DigestCache();
}

std::vector<std::pair<std::string_view, const CachedDigest*>> DigestCache::sorted() const {
  std::vector<std::pair<std::string_view, const CachedDigest*>> out;
  out.reserve(size());
  for (const Slot& slot : sorted_) out.emplace_back(path_of(slot), &slot.entry);
  if (added_.empty()) return out;
  for (const auto& [path, entry] : added_) out.emplace_back(path, &entry);
  const auto by_path = [](const auto& a, const auto& b) { return a.first < b.first; };
  const auto middle = out.begin() + static_cast<std::ptrdiff_t>(sorted_.size());
  std::sort(middle, out.end(), by_path);
  std::inplace_merge(out.begin(), middle, out.end(), by_path);
  return out;
}

bool DigestCache::operator==(const DigestCache& that) const {
  if (size() != that.size()) return false;
  const auto mine = sorted();
  const auto theirs = that.sorted();
  for (std::size_t i = 0; i < mine.size(); ++i) {
    if (mine[i].first != theirs[i].first || !(*mine[i].second == *theirs[i].second)) return false;
  }
  return true;
}

void DigestCache::append(std::string_view path, CachedDigest entry) {
  if (!sorted_.empty() && !(path_of(sorted_.back()) < path)) in_order_ = false;
  sorted_.push_back(Slot{paths_.size(), path.size(), std::move(entry)});
  paths_.append(path);
}

void DigestCache::finish_reading() {
  if (in_order_) return;
  std::stable_sort(sorted_.begin(), sorted_.end(),
                   [this](const Slot& a, const Slot& b) { return path_of(a) < path_of(b); });
  // A repeated path takes its last entry, as the general reader does.
  std::vector<Slot> kept;
  kept.reserve(sorted_.size());
  for (std::size_t i = 0; i < sorted_.size(); ++i) {
    if (i + 1 < sorted_.size() && path_of(sorted_[i]) == path_of(sorted_[i + 1])) continue;
    kept.push_back(std::move(sorted_[i]));
  }
  sorted_ = std::move(kept);
  in_order_ = true;
}

std::optional<DigestCache> read_written_digest_cache(std::string& text, std::int64_t version) {
  static_assert(kJsonReadPadding >= simdjson::SIMDJSON_PADDING);
  simdjson::dom::parser parser;
  simdjson::dom::element root;
  if (parser.parse(text).get(root)) return std::nullopt;
  // The document holds its own copy of every string: the text can go before
  // the entries are built, which is when memory peaks.
  std::string().swap(text);
  simdjson::dom::object top;
  if (root.get_object().get(top) || top.size() != 2) return std::nullopt;
  simdjson::dom::element stated_version;
  simdjson::dom::object files;
  if (top["version"].get(stated_version) || top["files"].get_object().get(files)) return std::nullopt;
  if (!stated_version.is_int64() || stated_version.get_int64().value_unsafe() != version) return std::nullopt;
  DigestCache cache;
  std::size_t path_bytes = 0;
  for (const simdjson::dom::key_value_pair member : files) path_bytes += member.key.size();
  cache.paths_.reserve(path_bytes);
  cache.sorted_.reserve(files.size());
  for (const simdjson::dom::key_value_pair member : files) {
    CachedDigest entry;
    if (!read_written_entry(member.value, entry)) return std::nullopt;
    cache.append(member.key, std::move(entry));
  }
  cache.finish_reading();
  return cache;
}

std::string digest_cache_text(const DigestCache& cache, std::int64_t version) {
  std::string text = "{\"files\": {";
  text.reserve(cache.size() * 220 + 32);
  bool first = true;
  for (const auto& [path, entry] : cache.sorted()) {
    if (!first) text += ", ";
    first = false;
    append_string(text, path);
    text += ": ";
    entry->append_text(text);
  }
  text += "}, \"version\": ";
  append_integer(text, version);
  text += '}';
  return text;
}

}  // namespace quillmarsh::sync
