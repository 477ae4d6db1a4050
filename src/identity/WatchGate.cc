#include "identity/WatchGate.h"

#include "platform/Text.h"

namespace tarnwick {
namespace {

// The value itself when it is an array, or the array a text value holds as JSON.
std::optional<Json> arrayOf(const Json* value) {
  if (value == nullptr) return std::nullopt;
  if (value->is_array()) return *value;
  if (!value->is_string()) return std::nullopt;
  auto inner = parseJsonDocument(value->get_ref<const std::string&>());
  if (!inner || !inner->is_array()) return std::nullopt;
  return inner;
}

}  // namespace

void WatchGate::update(SigningSet signing, PidSet pids) {
  MutexLock lock(mutex_);
  watched_signing_ids_.swap(signing);
  watched_pids_.swap(pids);
  // The old sets are freed when the arguments go out of scope, after the lock is released.
}

bool WatchGate::isWatched(std::string_view signingID, std::int64_t pid) const {
  MutexLock lock(mutex_);
  if (signingMatchesLockHeld(signingID)) return true;
  return pid != 0 && watched_pids_.contains(pid);
}

bool WatchGate::signingMatches(std::string_view signingID) const {
  MutexLock lock(mutex_);
  return signingMatchesLockHeld(signingID);
}

std::int64_t WatchGate::signingCount() const {
  MutexLock lock(mutex_);
  return static_cast<std::int64_t>(watched_signing_ids_.size());
}

std::int64_t WatchGate::pidCount() const {
  MutexLock lock(mutex_);
  return static_cast<std::int64_t>(watched_pids_.size());
}

std::optional<std::pair<WatchGate::SigningSet, WatchGate::PidSet>> WatchGate::decode(
    const Bytes& bytes) {
  if (bytes.empty()) return std::nullopt;
  const auto message = parseJsonDocument(textOf(bytes));
  if (!message || !message->is_object()) return std::nullopt;
  return std::pair{decodeStringSet(jsonMember(*message, "watchedSigningIDs")),
                   decodeIntSet(jsonMember(*message, "watchedPIDs"))};
}

WatchGate::SigningSet WatchGate::decodeStringSet(const Json* value) {
  const auto array = arrayOf(value);
  if (!array) return {};
  SigningSet signing;
  for (const Json& element : *array) {
    if (!element.is_string()) return {};
    const auto& text = element.get_ref<const std::string&>();
    if (!text.empty()) signing.insert(text);
  }
  return signing;
}

WatchGate::PidSet WatchGate::decodeIntSet(const Json* value) {
  const auto array = arrayOf(value);
  if (!array) return {};
  PidSet pids;
  for (const Json& element : *array) {
    std::optional<std::int64_t> pid;
    if (element.is_string()) {
      pid =
          parseDecimal<std::int64_t>(element.get_ref<const std::string&>(), LeadingPlus::Accepted);
    } else {
      pid = jsonIntegerValue(element);
    }
    if (pid) pids.insert(*pid);
  }
  return pids;
}

bool WatchGate::signingMatchesLockHeld(std::string_view signingID) const {
  return !signingID.empty() && watched_signing_ids_.contains(signingID);
}

}  // namespace tarnwick
