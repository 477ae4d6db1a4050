// tarnwick-proxyext watch: replaces the running interceptor's watch set through its control
// socket and prints the reply.

#include <cstdio>

#include "cli/Command.h"
#include "host/HostSettings.h"
#include "host/control/ControlClient.h"
#include "platform/Json.h"
#include "platform/OptionReader.h"
#include "platform/Text.h"

namespace tarnwick::cli {
namespace {

constexpr const char* kWatchUsage =
    "usage: tarnwick-proxyext watch [--control-socket PATH] [--signing-id ID]... [--pid N]...\n\n"
    "Replaces the whole watch set of the running interceptor (no option: nothing is watched)\n"
    "and prints its reply. Exit status 0 when the reply is {\"ok\":true}, 1 otherwise, also\n"
    "when no reply comes within 5 seconds. Only root and the interceptor's control group may.\n\n"
    "  --control-socket PATH  default /run/tarnwick-proxyext/control.sock\n"
    "  --signing-id ID        a watched signing identifier (an executable's canonical path)\n"
    "  --pid N                a watched process ID\n";

struct WatchArguments {
  std::string controlSocketPath = host::HostSettings::kDefaultControlSocketPath;
  Json signingIDs = Json::array();
  Json pids = Json::array();
  bool help = false;
};

void readOption(OptionReader& reader, const std::string& name, WatchArguments& out) {
  if (name == "--help" || name == "-h") {
    out.help = true;
    return;
  }
  const auto value = reader.value();
  if (!value) return;
  if (name == "--control-socket") {
    out.controlSocketPath = *value;
  } else if (name == "--signing-id") {
    out.signingIDs.push_back(*value);
  } else if (name == "--pid") {
    const auto pid = parseDecimal<std::int64_t>(*value);
    if (!pid) return reader.fail("--pid takes a decimal process ID");
    out.pids.push_back(*pid);
  } else {
    reader.fail("unknown option " + name);
  }
}

bool isOkReply(const Bytes& reply) {
  const auto document = parseJsonDocument(textOf(reply));
  const Json* ok = document ? jsonMember(*document, "ok") : nullptr;
  return ok != nullptr && ok->is_boolean() && ok->get<bool>();
}

int watch(const std::vector<std::string>& args) {
  WatchArguments arguments;
  OptionReader reader(args);
  while (const auto name = reader.next()) {
    readOption(reader, *name, arguments);
    if (reader.failed()) {
      std::fprintf(stderr, "tarnwick-proxyext watch: %s\n", reader.error().c_str());
      return kExitUsage;
    }
  }
  if (arguments.help) {
    std::fputs(kWatchUsage, stdout);
    return kExitOk;
  }
  const Json message{{"watchedSigningIDs", arguments.signingIDs}, {"watchedPIDs", arguments.pids}};
  std::string error;
  const auto reply =
      host::sendControlRequest(arguments.controlSocketPath, host::ControlOperation::Watch,
                               bytesOf(dumpCompact(message)), error);
  if (!reply) {
    std::fprintf(stderr, "tarnwick-proxyext watch: %s\n", error.c_str());
    return kExitFailure;
  }
  std::printf("%.*s\n", static_cast<int>(reply->size()),
              reinterpret_cast<const char*>(reply->data()));
  return isOkReply(*reply) ? kExitOk : kExitFailure;
}

const CommandRegistration kWatch({"watch", "replace the running interceptor's watch set", watch});

}  // namespace
}  // namespace tarnwick::cli
