#include "sync/support/log.h"

#include <atomic>
#include <cstdio>

#include "sync/errors.h"
#include "sync/support/json_text.h"
#include "sync/support/repr.h"

namespace quillmarsh::sync {
namespace {

std::atomic<int> g_stderr_level{static_cast<int>(LogLevel::warning)};

void write_to_stderr(const LogRecord& record) {
  if (static_cast<int>(record.level) < g_stderr_level.load()) return;
  std::string line = std::string(log_level_name(record.level)) + " " + kLoggerName + ": " +
                     record.message + "\n";
  if (!record.failure.empty()) line += record.failure + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

// The sink is never torn down at exit: a detached thread may log late.
struct SinkSlot {
  std::mutex mu;
  std::shared_ptr<const LogSink> sink;
};
SinkSlot& sink_slot() {
  static auto* slot = new SinkSlot();
  return *slot;
}

std::string as_text(const LogArg::Value& v) {
  struct Visitor {
    std::string operator()(std::monostate) const { return "None"; }
    std::string operator()(const std::string& s) const { return s; }
    std::string operator()(std::int64_t i) const { return std::to_string(i); }
    std::string operator()(double d) const { return json_text(Json(d)); }
    std::string operator()(bool b) const { return b ? "True" : "False"; }
    std::string operator()(const std::vector<std::string>& l) const { return quoted(l); }
  };
  return std::visit(Visitor{}, v);
}

std::string as_repr(const LogArg::Value& v) {
  if (const auto* s = std::get_if<std::string>(&v)) return quoted(std::string_view(*s));
  return as_text(v);
}

std::string as_fixed(const LogArg::Value& v, int decimals) {
  double d = 0;
  if (const auto* f = std::get_if<double>(&v)) d = *f;
  else if (const auto* i = std::get_if<std::int64_t>(&v)) d = static_cast<double>(*i);
  else if (const auto* b = std::get_if<bool>(&v)) d = *b ? 1 : 0;
  else return as_text(v);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, d);
  return buf;
}

std::string as_decimal(const LogArg::Value& v) {
  if (const auto* f = std::get_if<double>(&v)) return std::to_string(static_cast<std::int64_t>(*f));
  if (const auto* b = std::get_if<bool>(&v)) return *b ? "1" : "0";
  return as_text(v);
}

}  // namespace

const char* log_level_name(LogLevel level) {
  switch (level) {
    case LogLevel::debug: return "DEBUG";
    case LogLevel::info: return "INFO";
    case LogLevel::warning: return "WARNING";
    case LogLevel::error: return "ERROR";
  }
  return "LOG";
}

LogArg::LogArg(const std::optional<std::string>& text) {
  if (text) value_ = *text;
  else value_ = std::monostate{};
}

std::string format_log_message(std::string_view format, std::initializer_list<LogArg> args) {
  std::string out;
  auto next = args.begin();
  for (std::size_t i = 0; i < format.size(); ++i) {
    const char c = format[i];
    if (c != '%' || i + 1 >= format.size()) {
      out += c;
      continue;
    }
    const char conversion = format[i + 1];
    if (conversion == '%') {
      out += '%';
      ++i;
      continue;
    }
    // %.Nf
    int decimals = -1;
    std::size_t len = 1;
    if (conversion == '.' && i + 3 < format.size() && format[i + 3] == 'f') {
      decimals = format[i + 2] - '0';
      len = 3;
    } else if (conversion != 's' && conversion != 'r' && conversion != 'd' && conversion != 'f') {
      out += c;
      continue;
    }
    if (next == args.end()) {  // too few arguments: keep the text visible
      out += format.substr(i, len + 1);
      i += len;
      continue;
    }
    const LogArg::Value& v = (next++)->value();
    if (decimals >= 0) out += as_fixed(v, decimals);
    else if (conversion == 'f') out += as_fixed(v, 6);
    else if (conversion == 'r') out += as_repr(v);
    else if (conversion == 'd') out += as_decimal(v);
    else out += as_text(v);
    i += len;
  }
  return out;
}

void log_message(LogLevel level, std::string_view format, std::initializer_list<LogArg> args,
                 std::exception_ptr failure) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard<std::mutex> lock(sink_slot().mu);
    sink = sink_slot().sink;
  }
  if (!sink && static_cast<int>(level) < g_stderr_level.load()) return;
  LogRecord record{level, format_log_message(format, args),
                   failure ? describe_failure_chain(failure) : std::string()};
  if (sink) (*sink)(record);
  else write_to_stderr(record);
}

LogSink set_log_sink(LogSink sink) {
  auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  std::lock_guard<std::mutex> lock(sink_slot().mu);
  auto previous = std::move(sink_slot().sink);
  sink_slot().sink = std::move(next);
  return previous ? *previous : LogSink();
}

void set_stderr_log_level(LogLevel level) { g_stderr_level.store(static_cast<int>(level)); }

LogCapture::LogCapture() : state_(std::make_shared<State>()) {
  previous_ = set_log_sink([state = state_](const LogRecord& record) {
    std::lock_guard<std::mutex> lock(state->mu);
    state->records.push_back(record);
  });
}

LogCapture::~LogCapture() { set_log_sink(std::move(previous_)); }

std::vector<LogRecord> LogCapture::records() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->records;
}

std::size_t LogCapture::count(LogLevel level, std::string_view message) const {
  std::lock_guard<std::mutex> lock(state_->mu);
  std::size_t n = 0;
  for (const auto& r : state_->records) n += (r.level == level && r.message == message);
  return n;
}

std::size_t LogCapture::count_at(LogLevel level) const {
  std::lock_guard<std::mutex> lock(state_->mu);
  std::size_t n = 0;
  for (const auto& r : state_->records) n += (r.level == level);
  return n;
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->records.clear();
}

}  // namespace quillmarsh::sync
