// Faults an object store site can inject, per path: a host developer tries
// a client against a server that cuts, corrupts, stalls or refuses, and the
// tests make the library meet each of those on purpose.
#ifndef QUILLMARSH_SYNC_SERVER_FAULT_H_
#define QUILLMARSH_SYNC_SERVER_FAULT_H_

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace quillmarsh::sync::server {

// Orders header names without regard to ASCII case, as HTTP compares them.
struct HeaderNameLess {
  bool operator()(const std::string& a, const std::string& b) const;
};
using Headers = std::map<std::string, std::string, HeaderNameLess>;

// How to mishandle requests for one path. Fields combine: the delay comes
// first, then a redirect or a forced status, otherwise normal serving with
// the range and body faults applied. Body faults (cut, wrong bytes, stall)
// also shape a forced status's body.
struct Fault {
  // Answer with this status; the body is `body` if set, else the object's bytes.
  std::optional<int> status{};
  std::optional<std::string> body{};
  // Announce the full Content-Length, send only this many body bytes, then
  // drop the connection.
  std::optional<std::size_t> cut_after_bytes{};
  // Right length, every byte XOR 0xFF.
  bool wrong_bytes = false;
  // Sleep before sending the response head.
  double delay_before_head_s = 0;
  // After this many body bytes, sleep stall_s, then send the rest.
  std::optional<std::size_t> stall_after_bytes{};
  double stall_s = 0;
  // A ranged request gets 200 and the whole object.
  bool ignore_range = false;
  // A ranged request gets 206 with only the first half (at least one byte)
  // of the asked span; Content-Range tells the truth about what is sent.
  bool half_range = false;
  // 206 with the Content-Range of the asked span (the whole object if none)
  // but an empty body.
  bool empty_206 = false;
  // 302 with Location: this (a path on this site or a full URL).
  std::optional<std::string> redirect_to{};
  // Apply to the next N requests for the path (any method, whether or not
  // the fault changes anything for them), then serve normally. -1: always.
  int times = -1;
  // Serve the next N requests for the path normally before the fault
  // applies (and before `times` starts counting): "fail the third chunk".
  int skip = 0;
  // Extra response headers; they override the object's headers of that name.
  Headers headers{};
};

// "KEY[=VALUE],..." as `qmsync serve --fault PATH:FAULTS` takes it: status=N,
// body=TEXT, cut=BYTES, wrong-bytes, delay=SECONDS, stall=BYTES@SECONDS,
// ignore-range, half-range, empty-206, redirect=URL, times=N, skip=N. Fails
// with ValueError naming what it does not take.
Fault parse_fault(std::string_view text);

// The faults of a site by path; a key ending in '*' covers every path that
// starts with what comes before it. Safe from any thread.
class FaultTable {
 public:
  // Replaces the path's fault; times = 0 clears it.
  void set(const std::string& path, Fault f);
  void clear(const std::string& path);
  void clear();
  // The fault that applies to this request for `path`, if any, counting it
  // against the fault's skip and times.
  std::optional<Fault> take(const std::string& path);

 private:
  std::mutex mu_;
  std::map<std::string, Fault> faults_;
};

}  // namespace quillmarsh::sync::server

#endif  // QUILLMARSH_SYNC_SERVER_FAULT_H_
