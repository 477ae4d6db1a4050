#pragma once
// The world host's end of the load client's connections (LoadProtocol.h): it follows the script
// each connection's header names, checks every uploaded byte, and records what reached it under
// each id, so a test can tell that every request arrived exactly once and whole. A server may
// greet its clients first, and may close right after the greeting. Held scripts wait for the
// test to open the gate before they answer.
//
// Methods: any thread. The connections run on threads of their own (WorldServer).

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "EndToEnd.h"
#include "LoadProtocol.h"

namespace tarnwick::e2e {

class LoadServer {
 public:
  struct Opening {
    std::uint64_t greeting = 0;  // bytes sent on every connection before anything is read
    bool closeAfterGreeting = false;
  };
  explicit LoadServer(const std::string& netns);
  LoadServer(const std::string& netns, Opening opening);

  std::uint16_t port() const { return server_.port(); }
  int accepted() const { return server_.accepted(); }
  // The ids from `first` on, `count` of them, that have not reached the server exactly
  // `connections` times with a whole upload each time (and, unless `ending` is empty, a
  // client-resets stream that ended so), each said in a few words.
  std::vector<std::string> unlikeVisits(std::uint64_t first, std::uint64_t count, int connections,
                                        const std::string& ending = "") const;
  // Lets every held connection answer, now and from now on.
  void openGate();

 private:
  // What reached the server under one id.
  struct Visits {
    int connections = 0;
    int wholeUploads = 0;               // uploads that arrived complete and exact
    std::vector<std::string> problems;  // what was wrong with the others
    std::string ending;                 // after a client-resets upload: "end" or "reset"
  };

  void serve(int fd);
  void converse(int fd, const LoadHeader& header, std::int64_t deadline);
  void noteUpload(std::uint64_t id, const PumpPlan& plan, const PumpResult& result);
  bool awaitGate(std::int64_t deadline);

  const Opening opening_;
  mutable std::mutex mutex_;
  std::condition_variable gate_opened_;
  bool gate_open_ = false;
  std::map<std::uint64_t, Visits> visits_;
  WorldServer server_;  // last, so its connections end before what they use
};

}  // namespace tarnwick::e2e
