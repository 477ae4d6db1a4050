#include "FrontDoorMode.h"

#include <array>
#include <utility>

namespace tarnwick::frontdoor {
namespace {

constexpr std::array<std::pair<FrontDoorMode, std::string_view>, 8> kModeNames{{
    {FrontDoorMode::Normal, "normal"},
    {FrontDoorMode::Refuse, "refuse"},
    {FrontDoorMode::Silent, "silent"},
    {FrontDoorMode::Reject, "reject"},
    {FrontDoorMode::AckThenClose, "ack-then-close"},
    {FrontDoorMode::AckThenSilence, "ack-then-silence"},
    {FrontDoorMode::SlowAck, "slow-ack"},
    {FrontDoorMode::Garbage, "garbage"},
}};

}  // namespace

std::string_view modeName(FrontDoorMode mode) {
  for (const auto& [value, name] : kModeNames) {
    if (value == mode) return name;
  }
  return "normal";
}

std::optional<FrontDoorMode> modeFromName(std::string_view name) {
  for (const auto& [value, text] : kModeNames) {
    if (text == name) return value;
  }
  return std::nullopt;
}

}  // namespace tarnwick::frontdoor
