#include "ConnectionRecord.h"

#include <gtest/gtest.h>

#include "FrontDoorHarness.h"

namespace tarnwick::frontdoor {
namespace {

struct LineCase {
  std::string name;
  ConnectionRecord record;
  std::string expected;
};

class ConnectionLineTest : public ::testing::TestWithParam<LineCase> {};

TEST_P(ConnectionLineTest, StaysOneLineOfSpaceSeparatedFields) {
  EXPECT_EQ(formatConnectionLine(GetParam().record), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Records, ConnectionLineTest,
    ::testing::Values(
        LineCase{"Relayed",
                 {"4242",
                  "/usr/bin/curl",
                  "9f3c",
                  "example.com:443",
                  "example.com",
                  {"h2", "http/1.1"},
                  517,
                  4096,
                  "closed"},
                 "conn pid=4242 signing=/usr/bin/curl trace=9f3c dest=example.com:443 "
                 "sni=example.com alpn=h2,http/1.1 up=517 down=4096 result=closed"},
        LineCase{"NothingKnown",
                 {"", "", "", "", std::nullopt, {}, 0, 0, "no-request"},
                 "conn pid=- signing=- trace=- dest=- sni=- alpn=- up=0 down=0 result=no-request"},
        LineCase{"HostileValuesEscaped",
                 {"1 result=closed",
                  "My App\\\n",
                  "\xff",
                  "[::1]:443",
                  "a b",
                  {"x,y", ""},
                  1,
                  2,
                  "reset"},
                 "conn pid=1\\x20result=closed signing=My\\x20App\\x5c\\x0a trace=\\xff "
                 "dest=[::1]:443 sni=a\\x20b alpn=x\\x2cy, up=1 down=2 result=reset"}),
    CaseName{});

}  // namespace
}  // namespace tarnwick::frontdoor
