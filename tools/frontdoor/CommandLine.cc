#include "CommandLine.h"

#include <charconv>
#include <cmath>
#include <optional>

#include "platform/OptionReader.h"

namespace tarnwick::frontdoor {
namespace {

// Anything longer than a day is a typo, and timerfd would take it without complaint.
constexpr double kMaxDelaySeconds = 86400.0;

std::optional<double> parseSeconds(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  if (!std::isfinite(value) || value < 0 || value > kMaxDelaySeconds) return std::nullopt;
  return value;
}

// Applies one option; an empty result means it was taken.
std::optional<UsageError> apply(std::string_view name, std::string_view value, CommandLine& line) {
  if (name == "--listen") {
    auto listen = splitHostPort(value, PortZero::Accepted);
    if (!listen)
      return UsageError{"--listen wants HOST:PORT or [IPV6]:PORT, got '" + std::string(value) +
                        "'"};
    line.config.listen = std::move(*listen);
  } else if (name == "--mode") {
    auto mode = modeFromName(value);
    if (!mode) return UsageError{"unknown mode '" + std::string(value) + "'"};
    line.config.mode = *mode;
  } else if (name == "--delay") {
    auto seconds = parseSeconds(value);
    if (!seconds)
      return UsageError{"--delay wants seconds from 0 to 86400, got '" + std::string(value) + "'"};
    line.config.ackDelaySeconds = *seconds;
  } else if (name == "--mark") {
    auto mark = parseUnsigned(std::string(value), 0xffffffffUL);
    if (!mark) return UsageError{"--mark wants a 32-bit number, got '" + std::string(value) + "'"};
    line.config.upstreamMark = static_cast<std::uint32_t>(*mark);
  } else {
    return UsageError{"unknown option '" + std::string(name) + "'"};
  }
  return std::nullopt;
}

}  // namespace

std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args) {
  CommandLine line;
  OptionReader reader({args.begin(), args.end()});
  while (const auto name = reader.next()) {
    if (*name == "--help" || *name == "-h") {
      line.help = true;
      continue;
    }
    const auto value = reader.value();
    if (!value) return UsageError{reader.error()};
    if (auto error = apply(*name, *value, line)) return *error;
  }
  return line;
}

std::string_view usageText() {
  return "usage: tarnwick-frontdoor [--listen HOST:PORT] [--mode MODE] [--delay SECONDS] "
         "[--mark N]\n"
         "  --listen  address to accept CONNECT on (default 127.0.0.1:8443; port 0 picks one;\n"
         "            the bound address is printed as the first line)\n"
         "  --mode    normal | refuse | silent | reject | ack-then-close | ack-then-silence |\n"
         "            slow-ack | garbage (default normal)\n"
         "  --delay   slow-ack wait in seconds (default 3)\n"
         "  --mark    socket mark for upstream connections (decimal or 0x hex), e.g. the\n"
         "            interceptor's own mark so they are not intercepted (needs CAP_NET_ADMIN)\n";
}

}  // namespace tarnwick::frontdoor
