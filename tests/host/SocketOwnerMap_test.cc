// Socket inodes to owning processes, over a synthetic /proc and the real one.

#include "host/SocketOwnerMap.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "HostTesting.h"
#include "platform/testing/LoopbackServer.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;

// A directory laid out as /proc: PID/fd/N links whose targets are "socket:[inode]" texts.
class FakeProc {
 public:
  FakeProc() : root_(fs::path(::testing::TempDir()) / ("proc-" + std::to_string(::getpid()))) {
    fs::remove_all(root_);
    fs::create_directories(root_ / "self");
  }
  ~FakeProc() { fs::remove_all(root_); }

  void holds(pid_t pid, int fd, const std::string& target) {
    const fs::path dir = root_ / std::to_string(pid) / "fd";
    fs::create_directories(dir);
    fs::create_symlink(target, dir / std::to_string(fd));
  }
  void exits(pid_t pid) { fs::remove_all(root_ / std::to_string(pid)); }
  std::string root() const { return root_.string(); }

 private:
  fs::path root_;
};

TEST(SocketOwnerMapTest, FindsTheProcessHoldingTheSocket) {
  FakeProc proc;
  proc.holds(100, 3, "socket:[5001]");
  proc.holds(100, 4, "/dev/null");
  proc.holds(2000, 7, "pipe:[5002]");
  proc.holds(2000, 8, "socket:[5003]");
  SocketOwnerMap owners(proc.root());
  EXPECT_EQ(owners.ownerOf(5001), 100);
  EXPECT_EQ(owners.ownerOf(5003), 2000);
  EXPECT_EQ(owners.ownerOf(5002), std::nullopt);  // a pipe, not a socket
  EXPECT_EQ(owners.ownerOf(9999), std::nullopt);
}

// A hit is answered from the cache; a miss rescans and finds sockets opened since.
TEST(SocketOwnerMapTest, CachesWhatItScannedAndRescansOnAMiss) {
  FakeProc proc;
  proc.holds(300, 3, "socket:[1]");
  proc.holds(200, 3, "socket:[2]");
  SocketOwnerMap owners(proc.root());
  EXPECT_EQ(owners.ownerOf(2), 200);  // found after scanning 300 first: both are cached
  proc.exits(300);
  EXPECT_EQ(owners.ownerOf(1), 300);
  proc.holds(400, 5, "socket:[3]");
  EXPECT_EQ(owners.ownerOf(3), 400);
}

TEST(SocketOwnerMapTest, StartsOverWhenTheCacheIsFull) {
  FakeProc proc;
  for (int fd = 0; fd < 10; ++fd) proc.holds(10, fd, "socket:[" + std::to_string(fd) + "]");
  SocketOwnerMap owners(proc.root(), 4);
  EXPECT_EQ(owners.ownerOf(9), 10);
  EXPECT_LE(owners.cachedCountForTest(), 4u);
}

TEST(SocketOwnerMapTest, ReadsOnlySocketLinks) {
  EXPECT_EQ(socketInodeOfLink("socket:[12345]"), 12345u);
  EXPECT_EQ(socketInodeOfLink("socket:[18446744073709551615]"), 18446744073709551615u);
  for (const char* other : {"socket:[]", "socket:[12a]", "socket:[-1]", "socket:12345",
                            "anon_inode:[eventpoll]", "socket:[1] ", "/tmp/socket:[1]"}) {
    EXPECT_EQ(socketInodeOfLink(other), std::nullopt) << other;
  }
}

TEST(SocketOwnerMapTest, FindsThisProcessInTheRealProc) {
  LoopbackServer server("127.0.0.1");
  TestClient client(loopbackAddress("127.0.0.1", server.port()));
  ASSERT_TRUE(client.connected());
  struct stat status {};
  ASSERT_EQ(::fstat(client.fd(), &status), 0);
  SocketOwnerMap owners;
  EXPECT_EQ(owners.ownerOf(status.st_ino), ::getpid());
}

}  // namespace
}  // namespace tarnwick::host
