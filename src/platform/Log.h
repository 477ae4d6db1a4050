#pragma once
// The unified-log stand-in. A Logger takes the system's format strings exactly as they are
// written: "%{public}s" shows a text (its control characters escaped, so that every record stays
// one line), a plain "%s" is redacted to "<private>", "%{bool}d" shows
// true or false, and %ld %d %hu %f render as printf would. Records go to one process-wide sink:
// stderr by default, a capture sink in tests.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>
#include <vector>

#include "platform/Clock.h"

namespace tarnwick {

enum class LogLevel { Info, Error };

struct LogRecord {
  LogLevel level;
  std::string subsystem;
  std::string category;
  std::string message;
};

class LogSink {
 public:
  virtual ~LogSink() = default;
  // Called from any thread, possibly concurrently.
  virtual void write(const LogRecord& record) = 0;
};

// Installs `sink` for the whole process and returns the previous one. nullptr restores stderr.
std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink);

// One argument of a log line. Texts are borrowed for the duration of the call only.
class LogArg {
 public:
  LogArg(std::string_view text) : value_(text) {}
  LogArg(const std::string& text) : value_(std::string_view(text)) {}
  LogArg(const char* text) : value_(std::string_view(text)) {}
  LogArg(double number) : value_(number) {}
  template <typename T, typename = std::enable_if_t<std::is_integral_v<T>>>
  LogArg(T number) : value_(static_cast<std::int64_t>(number)) {}

  const std::variant<std::string_view, std::int64_t, double>& value() const { return value_; }

 private:
  std::variant<std::string_view, std::int64_t, double> value_;
};

std::string renderLogFormat(std::string_view format, const std::vector<LogArg>& args);

class Logger {
 public:
  Logger(std::string subsystem, std::string category);

  template <typename... Args>
  void info(std::string_view format, const Args&... args) const {
    emit(LogLevel::Info, format, {LogArg(args)...});
  }
  template <typename... Args>
  void error(std::string_view format, const Args&... args) const {
    emit(LogLevel::Error, format, {LogArg(args)...});
  }

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

 private:
  void emit(LogLevel level, std::string_view format, const std::vector<LogArg>& args) const;

  std::string subsystem_;
  std::string category_;
};

// The provider's and relay engine's logger: subsystem "dev.fernquill.tarnwick.proxyex",
// category "proxyext".
const Logger& proxyLog();
// The daemon bridge's logger: subsystem "dev.fernquill.tarnwick.netext", category "netext".
const Logger& netLog();

}  // namespace tarnwick
