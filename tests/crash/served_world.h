// An evolving published data set on the HTTPS test server, for the runs that
// drive qmsync as real processes: every version and era has its own object
// store prefix, so the requests show which version a file was fetched for.
#ifndef QUILLMARSH_SYNC_TESTS_CRASH_SERVED_WORLD_H_
#define QUILLMARSH_SYNC_TESTS_CRASH_SERVED_WORLD_H_

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "sync/support/json_text.h"
#include "tests/support/test_server.h"

namespace quillmarsh::sync::testing {

// One published manifest and the bytes behind it.
struct Published {
  std::int64_t era = 0;
  std::int64_t version = 0;
  std::string prefix;  // "/bucket/e{era}/v{version}" on the store
  Json manifest;
  std::map<std::string, std::string> files;  // manifest path -> bytes, vocabularies included
  std::string seed;                          // the era's shuffle seed
};

class ServedWorld {
 public:
  // `large_files` of 1 to 2 MiB and `small_files` of up to 40 KiB, plus an
  // empty file and two vocabularies; era 1, version 1 is published. The
  // store keeps the files of the newest `kept_versions` versions.
  ServedWorld(std::uint32_t seed, int large_files, int small_files, std::size_t kept_versions = 3);

  // A new version of the current era: one data file dropped and
  // `added_files` new ones, about a quarter of them large.
  const Published& publish_next_version(int added_files);
  // Version 1 of the next era, with new bytes for about half the files and a
  // new seed; /era/current names it active.
  const Published& publish_next_era();

  Published current() const;
  std::string api_url() const { return api_.base_url(); }
  TestServer& store() { return store_; }
  TestServer& api() { return api_; }

  // Arguments of a qmsync client command against this world.
  std::vector<std::string> client(const std::string& binary, const std::string& data_dir,
                                  const std::string& token_file, std::vector<std::string> command) const;

 private:
  std::string fresh_bytes(std::size_t n);
  void serve(Published p);

  TestServer api_;
  TestServer store_;
  mutable std::mutex mu_;
  std::mt19937 rng_;
  int next_file_ = 0;
  std::size_t kept_versions_;
  std::deque<Published> served_;  // the newest last; older prefixes are dropped from the store
};

}  // namespace quillmarsh::sync::testing

#endif  // QUILLMARSH_SYNC_TESTS_CRASH_SERVED_WORLD_H_
