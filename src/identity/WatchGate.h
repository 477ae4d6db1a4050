#pragma once
// The watch set: signing identifiers and PIDs of the watched agents. Every new flow is tested
// against it, and the ancestry walk tests each ancestor's signing identifier.
//
// Owned by the provider. update() runs on the app-message path while flows are classified on
// framework threads; one lock guards both sets and is never held while calling out.
// decode(), decodeStringSet() and decodeIntSet() touch no state and run on any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "platform/Bytes.h"
#include "platform/Json.h"
#include "platform/Mutex.h"

namespace tarnwick {

class WatchGate {
 public:
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>{}(text);
    }
  };
  using SigningSet = std::unordered_set<std::string, TextHash, std::equal_to<>>;
  using PidSet = std::unordered_set<std::int64_t>;

  // Replaces both sets at once, so no reader sees the new signing set with the old PID set.
  // Stores what it is given, the empty identifier included.
  void update(SigningSet signing, PidSet pids) TW_EXCLUDES(mutex_);

  // Exact signing-identifier match (never for the empty identifier), or PID match (never for 0).
  bool isWatched(std::string_view signingID, std::int64_t pid) const TW_EXCLUDES(mutex_);
  bool signingMatches(std::string_view signingID) const TW_EXCLUDES(mutex_);

  std::int64_t signingCount() const TW_EXCLUDES(mutex_);
  std::int64_t pidCount() const TW_EXCLUDES(mutex_);

  // The watch-set message: a JSON object with optional "watchedSigningIDs" and "watchedPIDs".
  // Absent for empty bytes, bytes that are not JSON, or a top level that is not an object;
  // otherwise both sets, empty where a key is missing or holds nothing usable.
  static std::optional<std::pair<SigningSet, PidSet>> decode(const Bytes& bytes);

  // An array of texts, or a text holding a JSON array of texts; empty texts are dropped. Any
  // non-text element empties the whole set. `value` is nullptr when the key is absent.
  static SigningSet decodeStringSet(const Json* value);
  // An array of numbers and decimal texts, or a text holding such a JSON array. Elements that
  // are neither are skipped one by one.
  static PidSet decodeIntSet(const Json* value);

 private:
  bool signingMatchesLockHeld(std::string_view signingID) const TW_REQUIRES(mutex_);

  mutable Mutex mutex_;
  SigningSet watched_signing_ids_ TW_GUARDED_BY(mutex_);
  PidSet watched_pids_ TW_GUARDED_BY(mutex_);
};

}  // namespace tarnwick
