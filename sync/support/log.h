// The component's one logger, "quillmarsh.sync".
//
// Messages are printf-style texts rendered by format_log_message (%s, %r,
// %d, %.Nf, %%). Records go to a pluggable sink: the host routes them into
// its own logging; by default lines "LEVEL quillmarsh.sync: message" go to
// stderr at warning and above.
#ifndef QUILLMARSH_SYNC_SUPPORT_LOG_H_
#define QUILLMARSH_SYNC_SUPPORT_LOG_H_

#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace quillmarsh::sync {

inline constexpr const char* kLoggerName = "quillmarsh.sync";

enum class LogLevel { debug = 10, info = 20, warning = 30, error = 40 };
const char* log_level_name(LogLevel level);  // "DEBUG", "INFO", ...

struct LogRecord {
  LogLevel level;
  std::string message;
  std::string failure;  // the failure and its causes, when logged with one
};

// One argument of a log message.
class LogArg {
 public:
  LogArg(const char* text) : value_(std::string(text ? text : "")) {}
  LogArg(std::string text) : value_(std::move(text)) {}
  LogArg(std::string_view text) : value_(std::string(text)) {}
  LogArg(const std::optional<std::string>& text);
  LogArg(std::nullopt_t) : value_(std::monostate{}) {}
  LogArg(bool value) : value_(value) {}
  LogArg(int value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(long value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(long long value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(unsigned value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(unsigned long value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(unsigned long long value) : value_(static_cast<std::int64_t>(value)) {}
  LogArg(double value) : value_(value) {}
  LogArg(const std::exception& failure) : value_(std::string(failure.what())) {}
  LogArg(std::vector<std::string> items) : value_(std::move(items)) {}

  using Value = std::variant<std::monostate, std::string, std::int64_t, double, bool,
                             std::vector<std::string>>;
  const Value& value() const { return value_; }

 private:
  Value value_;
};

std::string format_log_message(std::string_view format, std::initializer_list<LogArg> args);

// Emits a record. `failure`, when given, is logged with its chain of causes.
void log_message(LogLevel level, std::string_view format, std::initializer_list<LogArg> args = {},
                 std::exception_ptr failure = nullptr);

inline void log_debug(std::string_view f, std::initializer_list<LogArg> a = {}) { log_message(LogLevel::debug, f, a); }
inline void log_info(std::string_view f, std::initializer_list<LogArg> a = {}) { log_message(LogLevel::info, f, a); }
inline void log_warning(std::string_view f, std::initializer_list<LogArg> a = {}) { log_message(LogLevel::warning, f, a); }
inline void log_error(std::string_view f, std::initializer_list<LogArg> a = {}) { log_message(LogLevel::error, f, a); }

using LogSink = std::function<void(const LogRecord&)>;
// Routes every record to `sink`; an empty sink restores the stderr default.
// Returns the sink that was in place.
LogSink set_log_sink(LogSink sink);
// The lowest level the stderr default writes (warning unless changed).
void set_stderr_log_level(LogLevel level);

// Collects every record while it lives, for tests; restores the previous
// sink when it goes.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> records() const;
  std::size_t count(LogLevel level, std::string_view message) const;
  std::size_t count_at(LogLevel level) const;
  void clear();

 private:
  struct State {
    mutable std::mutex mu;
    std::vector<LogRecord> records;
  };
  std::shared_ptr<State> state_;
  LogSink previous_;
};

}  // namespace quillmarsh::sync

#endif  // QUILLMARSH_SYNC_SUPPORT_LOG_H_
