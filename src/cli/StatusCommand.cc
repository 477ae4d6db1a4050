// tarnwick-proxyext status: what the running interceptor is doing, as one JSON object.

#include <cstdio>

#include "cli/Command.h"
#include "host/HostSettings.h"
#include "host/control/ControlClient.h"
#include "platform/Json.h"
#include "platform/OptionReader.h"
#include "platform/Text.h"

namespace tarnwick::cli {
namespace {

constexpr const char* kStatusUsage =
    "usage: tarnwick-proxyext status [--control-socket PATH]\n\n"
    "Prints the running interceptor's status as one JSON object: \"selection\", the watched\n"
    "\"watchedSigningIDs\" and \"watchedPIDs\" (counts), \"candidates\", \"relays\" (flows "
    "carried\n"
    "now), \"circuit\" (the front door's circuit: closed, open or half-open), and counts since\n"
    "start: \"relayed\", \"handedBack\", \"failedOpen\" by reason, \"udpFlowsReported\",\n"
    "\"unplaced\" (connections it could not place), \"bytesFromAgents\" and \"bytesToAgents\".\n"
    "Exit status 1 when no answer comes within 5 seconds. Only root and the interceptor's\n"
    "control group may ask.\n\n"
    "  --control-socket PATH  default /run/tarnwick-proxyext/control.sock\n";

int fail(const std::string& message, int status) {
  std::fprintf(stderr, "tarnwick-proxyext status: %s\n", message.c_str());
  return status;
}

int status(const std::vector<std::string>& args) {
  std::string path = host::HostSettings::kDefaultControlSocketPath;
  OptionReader reader(args);
  while (const auto name = reader.next()) {
    if (*name == "--help" || *name == "-h") {
      std::fputs(kStatusUsage, stdout);
      return kExitOk;
    }
    const auto value = *name == "--control-socket" ? reader.value() : std::nullopt;
    if (!value)
      return fail(reader.failed() ? reader.error() : "unknown option " + *name, kExitUsage);
    path = *value;
  }
  std::string error;
  const auto reply = host::sendControlRequest(path, host::ControlOperation::Status, {}, error);
  if (!reply) return fail(error, kExitFailure);
  const auto document = parseJsonDocument(textOf(*reply));
  const Json* ok = document ? jsonMember(*document, "ok") : nullptr;
  if (!document || ok != nullptr)
    return fail("the interceptor answered " + dumpCompact(textOf(*reply)), kExitFailure);
  std::printf("%s\n", dumpCompact(*document).c_str());
  return kExitOk;
}

const CommandRegistration kStatus({"status", "print the running interceptor's status as JSON",
                                   status});

}  // namespace
}  // namespace tarnwick::cli
