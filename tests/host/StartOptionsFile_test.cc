// Reading the start options file.

#include "host/StartOptionsFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

namespace tarnwick::host {
namespace {

struct OptionsCase {
  const char* name;
  std::string bytes;
  bool accepted;
};

class StartOptionsTest : public ::testing::TestWithParam<OptionsCase> {};

TEST_P(StartOptionsTest, AcceptsOnlyOneJsonObject) {
  const auto result = parseStartOptions(GetParam().bytes);
  EXPECT_EQ(result.options.has_value(), GetParam().accepted);
  EXPECT_EQ(result.error.empty(), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(
    Documents, StartOptionsTest,
    ::testing::Values(OptionsCase{"AllKeys",
                                  R"({"frontDoorPort":8443,"frontDoorHost":"127.0.0.1",)"
                                  R"("watchedSigningIDs":["/usr/bin/curl"],"watchedPIDs":[42],)"
                                  R"("socketPath":"/run/d.sock","providerConfiguration":{}})",
                                  true},
                      OptionsCase{"EmptyObject", "{}\n", true},
                      OptionsCase{"Array", "[1,2]", false}, OptionsCase{"Number", "8443", false},
                      OptionsCase{"Empty", "", false}, OptionsCase{"TrailingBytes", "{} x", false},
                      OptionsCase{"Truncated", R"({"frontDoorPort":)", false},
                      OptionsCase{"InvalidUtf8", "{\"frontDoorHost\":\"\xff\"}", false}),
    [](const auto& param) { return std::string(param.param.name); });

TEST(StartOptionsFileTest, KeepsEveryKeyOfTheFile) {
  const std::string path = ::testing::TempDir() + "options-" + std::to_string(::getpid());
  std::ofstream(path) << R"({"frontDoorPort":"8443","extra":[true]})";
  const auto result = readStartOptionsFile(path);
  ::unlink(path.c_str());
  ASSERT_TRUE(result.options);
  EXPECT_EQ(*result.options, Json::parse(R"({"frontDoorPort":"8443","extra":[true]})"));
}

TEST(StartOptionsFileTest, NamesTheFileWhenItCannotBeRead) {
  for (const std::string path : {"/nonexistent/options.json", "/"}) {
    const auto result = readStartOptionsFile(path);
    EXPECT_FALSE(result.options) << path;
    EXPECT_NE(result.error.find(path), std::string::npos) << result.error;
    EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
  }
}

}  // namespace
}  // namespace tarnwick::host
