// tarnwick-proxyext sni FILE: the server name and offered protocols of a recorded ClientHello.

#include <cstdio>
#include <string>
#include <vector>

#include "cli/Command.h"
#include "cli/CommandInput.h"
#include "platform/Json.h"
#include "policy/SNIParser.h"

namespace tarnwick::cli {
namespace {

constexpr const char* kUsage =
    "usage: tarnwick-proxyext sni FILE\n"
    "Prints the server name and ALPN protocols of the TLS ClientHello at the start of FILE\n"
    "('-' reads standard input) as one JSON object: {\"serverName\":TEXT|null,\"alpn\":[...]}.\n"
    "Input that is not a ClientHello prints a null name and no protocols.\n";

int usageError(const std::string& message) {
  std::fprintf(stderr, "tarnwick-proxyext sni: %s\n%s", message.c_str(), kUsage);
  return kExitUsage;
}

std::string describe(const SNIParseResult& result) {
  nlohmann::ordered_json json;
  json["serverName"] = result.serverName ? Json(*result.serverName) : Json(nullptr);
  json["alpn"] = result.alpn;
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

int runSni(const std::vector<std::string>& args) {
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  if (args.size() != 1) return usageError("expects exactly one FILE");
  if (args[0].size() > 1 && args[0][0] == '-')
    return usageError("unknown option '" + args[0] + "'");
  std::string error;
  const auto bytes = readInput(args[0], error);
  if (!bytes) {
    std::fprintf(stderr, "tarnwick-proxyext sni: %s\n", error.c_str());
    return kExitUsage;
  }
  std::printf("%s\n", describe(SNIParser::parse(*bytes)).c_str());
  return kExitOk;
}

const CommandRegistration kRegistration{
    {"sni", "print the server name and ALPN of a recorded TLS ClientHello", runSni}};

}  // namespace
}  // namespace tarnwick::cli
