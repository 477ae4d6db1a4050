#include "platform/Log.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "platform/Text.h"

namespace tarnwick {
namespace {

class StderrSink : public LogSink {
 public:
  void write(const LogRecord& record) override {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const auto micros =
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count() %
        1000000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
    std::fprintf(stderr, "%s.%06ldZ %s %s[%s] %s\n", stamp, static_cast<long>(micros),
                 record.level == LogLevel::Error ? "error" : "info", record.subsystem.c_str(),
                 record.category.c_str(), record.message.c_str());
  }
};

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

std::shared_ptr<LogSink>& currentSink() {
  static std::shared_ptr<LogSink> sink = std::make_shared<StderrSink>();
  return sink;
}

std::shared_ptr<LogSink> activeSink() {
  std::lock_guard<std::mutex> lock(sinkMutex());
  return currentSink();
}

// Renders one conversion. `conversionSpec` is what follows '%' up to and including the
// conversion letter.
void renderConversion(std::string& out, std::string_view conversionSpec, const LogArg* arg) {
  const char conversion = conversionSpec.back();
  const bool isPublic = conversionSpec.find("{public}") != std::string_view::npos;
  const bool isBool = conversionSpec.find("{bool}") != std::string_view::npos;
  if (arg == nullptr) {
    out += "<missing>";
    return;
  }
  const auto& value = arg->value();
  if (conversion == 's') {
    // Texts come from programs, peers and files: escaped here, once for every line, so that none
    // can end a line early and forge the next.
    const auto* text = std::get_if<std::string_view>(&value);
    out += isPublic ? (text ? escapeControlCharacters(*text) : "<non-text>") : "<private>";
    return;
  }
  if (conversion == 'f') {
    double number = 0;
    if (const auto* d = std::get_if<double>(&value)) number = *d;
    if (const auto* i = std::get_if<std::int64_t>(&value)) number = static_cast<double>(*i);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%f", number);
    out += buffer;
    return;
  }
  std::int64_t number = 0;
  if (const auto* i = std::get_if<std::int64_t>(&value)) number = *i;
  if (const auto* d = std::get_if<double>(&value)) number = static_cast<std::int64_t>(*d);
  if (isBool) {
    out += number != 0 ? "true" : "false";
  } else if (conversionSpec.find('h') != std::string_view::npos && conversion == 'u') {
    out += std::to_string(static_cast<std::uint16_t>(number));
  } else if (conversion == 'u') {
    out += std::to_string(static_cast<std::uint64_t>(number));
  } else {
    out += std::to_string(number);
  }
}

}  // namespace

std::shared_ptr<LogSink> setLogSink(std::shared_ptr<LogSink> sink) {
  if (!sink) sink = std::make_shared<StderrSink>();
  std::lock_guard<std::mutex> lock(sinkMutex());
  std::swap(currentSink(), sink);
  return sink;
}

std::string renderLogFormat(std::string_view format, const std::vector<LogArg>& args) {
  std::string out;
  out.reserve(format.size() + 32);
  size_t nextArg = 0;
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%') {
      out += format[i];
      continue;
    }
    if (i + 1 < format.size() && format[i + 1] == '%') {
      out += '%';
      ++i;
      continue;
    }
    // A conversion: '%', an optional {annotation}, length modifiers, then the letter.
    size_t end = i + 1;
    if (end < format.size() && format[end] == '{') {
      const size_t close = format.find('}', end);
      end = close == std::string_view::npos ? format.size() : close + 1;
    }
    while (end < format.size() && (format[end] == 'l' || format[end] == 'h')) ++end;
    if (end >= format.size()) {
      out.append(format.substr(i));
      break;
    }
    const LogArg* arg = nextArg < args.size() ? &args[nextArg] : nullptr;
    ++nextArg;
    renderConversion(out, format.substr(i + 1, end - i), arg);
    i = end;
  }
  return out;
}

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::emit(LogLevel level, std::string_view format, const std::vector<LogArg>& args) const {
  LogRecord record{level, subsystem_, category_, renderLogFormat(format, args)};
  activeSink()->write(record);
}

const Logger& proxyLog() {
  static const Logger logger("dev.fernquill.tarnwick.proxyex", "proxyext");
  return logger;
}

const Logger& netLog() {
  static const Logger logger("dev.fernquill.tarnwick.netext", "netext");
  return logger;
}

}  // namespace tarnwick
