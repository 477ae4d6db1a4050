#include "CommandLine.h"

#include <charconv>
#include <cmath>
#include <optional>
#include <string>

#include "platform/OptionReader.h"

namespace tarnwick::frontdoor {
namespace {

// Anything longer than a day is a typo, and timerfd would take it without complaint.
constexpr double kMaxDelaySeconds = 86400.0;

using Fault = std::optional<std::string>;

std::optional<double> parseSeconds(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
  if (!std::isfinite(value) || value < 0 || value > kMaxDelaySeconds) return std::nullopt;
  return value;
}

std::string got(std::string_view value) { return ", got '" + std::string(value) + "'"; }

}  // namespace

std::variant<CommandLine, UsageError> parseCommandLine(std::span<const std::string_view> args) {
  CommandLine line;
  FrontDoorConfig& config = line.config;
  const companion::Option options[] = {
      {.name = "--listen",
       .apply = [&](std::string_view value) -> Fault {
         auto listen = splitHostPort(value);
         if (!listen) {
           return "--listen wants HOST:PORT or [IPV6]:PORT with a port from 1 to 65535" +
                  got(value);
         }
         config.listen = std::move(*listen);
         return std::nullopt;
       }},
      {.name = "--mode",
       .apply = [&](std::string_view value) -> Fault {
         auto mode = modeFromName(value);
         if (!mode) return "--mode wants one of the modes below" + got(value);
         config.mode = *mode;
         return std::nullopt;
       }},
      {.name = "--delay",
       .apply = [&](std::string_view value) -> Fault {
         auto seconds = parseSeconds(value);
         if (!seconds) return "--delay wants seconds from 0 to 86400" + got(value);
         config.ackDelaySeconds = *seconds;
         return std::nullopt;
       }},
      {.name = "--mark",
       .apply = [&](std::string_view value) -> Fault {
         auto mark = parseUnsigned(std::string(value), 0xffffffffUL);
         if (!mark) return "--mark wants a 32-bit number" + got(value);
         config.upstreamMark = static_cast<std::uint32_t>(*mark);
         return std::nullopt;
       }},
  };
  if (auto error = companion::applyOptions(args, options, line.help)) return *error;
  return line;
}

std::string_view usageText() {
  return "usage: tarnwick-frontdoor [--listen HOST:PORT] [--mode MODE] [--delay SECONDS] "
         "[--mark N]\n"
         "  --listen  address to accept CONNECT on (default 127.0.0.1:8443; the bound address\n"
         "            is printed as the first line)\n"
         "  --mode    normal | refuse | silent | reject | ack-then-close | ack-then-silence |\n"
         "            slow-ack | garbage (default normal)\n"
         "  --delay   slow-ack wait in seconds (default 3)\n"
         "  --mark    socket mark for upstream connections (decimal or 0x hex), e.g. the\n"
         "            interceptor's own mark so they are not intercepted (needs CAP_NET_ADMIN)\n"
         "Requests other than CONNECT are answered 405 at once, in the mode's own way.\n";
}

}  // namespace tarnwick::frontdoor
