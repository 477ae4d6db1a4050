// The options file as `run` checks it before the provider sees it: every shape that would start
// the host watching or inspecting less than the operator meant stops it with one line naming
// the key and what was wanted there.

#include <gtest/gtest.h>

#include <fstream>

#include "host/StartOptionsFile.h"
#include "platform/testing/CaseName.h"

namespace tarnwick::host {
namespace {

struct BadOptions {
  const char* name;
  std::string bytes;
  const char* error;  // what the line must say
};

void PrintTo(const BadOptions& c, std::ostream* os) { *os << c.bytes; }

class BadOptionsTest : public ::testing::TestWithParam<BadOptions> {};

TEST_P(BadOptionsTest, AreRefusedInOneLineNamingTheKey) {
  const StartOptionsResult result = parseStartOptions(GetParam().bytes);
  EXPECT_FALSE(result.options);
  EXPECT_NE(result.error.find(GetParam().error), std::string::npos) << result.error;
  EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
}

const std::string kLongPath = "/run/" + std::string(103, 'a');

INSTANTIATE_TEST_SUITE_P(
    Shapes, BadOptionsTest,
    ::testing::Values(
        BadOptions{"NotJSON", R"({"frontDoorPort":8443,})", "is not valid JSON"},
        BadOptions{"AnArray", R"([{"frontDoorPort":8443}])", "must hold a JSON object, not [{"},
        BadOptions{"AText", R"("frontDoorPort")", "is not valid JSON"},
        BadOptions{"PortAsText", R"({"frontDoorPort":"8443"})",
                   R"("frontDoorPort" must be an integer from 1 to 65535, not "8443")"},
        BadOptions{"PortZero", R"({"frontDoorPort":0})", R"("frontDoorPort" must be)"},
        BadOptions{"PortTooLarge", R"({"frontDoorPort":65536})", R"("frontDoorPort" must be)"},
        BadOptions{"PortNegative", R"({"frontDoorPort":-1})", R"("frontDoorPort" must be)"},
        BadOptions{"PortFraction", R"({"frontDoorPort":8443.5})", R"("frontDoorPort" must be)"},
        BadOptions{"PortBoolean", R"({"frontDoorPort":true})", R"("frontDoorPort" must be)"},
        BadOptions{"PortHuge", R"({"frontDoorPort":18446744073709551615})",
                   R"("frontDoorPort" must be)"},
        BadOptions{"HostEmpty", R"({"frontDoorHost":""})", R"("frontDoorHost" must be)"},
        BadOptions{"HostNumber", R"({"frontDoorHost":127})", R"("frontDoorHost" must be)"},
        BadOptions{"HostWithNewline", R"({"frontDoorHost":"a\nb"})",
                   R"("frontDoorHost" must be a host name or address (text without blanks), )"
                   R"(not "a\nb")"},
        BadOptions{"SigningIDsAsText", R"({"watchedSigningIDs":"[\"/usr/bin/curl\"]"})",
                   R"("watchedSigningIDs" must be an array of signing identifiers)"},
        BadOptions{"SigningIDNotText", R"({"watchedSigningIDs":["/usr/bin/curl",5]})",
                   R"("watchedSigningIDs"[1] must be a non-empty text)"},
        BadOptions{"SigningIDEmpty", R"({"watchedSigningIDs":[""]})",
                   R"("watchedSigningIDs"[0] must be a non-empty text)"},
        BadOptions{"PIDAsText", R"({"watchedPIDs":[12,"13"]})",
                   R"("watchedPIDs"[1] must be a positive integer (a process ID), not "13")"},
        BadOptions{"PIDZero", R"({"watchedPIDs":[0]})", R"("watchedPIDs"[0] must be)"},
        BadOptions{"PIDNegative", R"({"watchedPIDs":[-4]})", R"("watchedPIDs"[0] must be)"},
        BadOptions{"PIDBeyondPidT", R"({"watchedPIDs":[4294967296]})", R"("watchedPIDs"[0])"},
        BadOptions{"PIDsAsNumber", R"({"watchedPIDs":7})", R"("watchedPIDs" must be an array)"},
        BadOptions{"UnknownKeyTypo", R"({"watchedSigningIds":[]})",
                   R"(unknown key "watchedSigningIds" (did you mean "watchedSigningIDs"?))"},
        BadOptions{"UnknownKey", R"({"frontDoor":"127.0.0.1:8443"})",
                   R"(unknown key "frontDoor" (the keys are frontDoorHost, frontDoorPort, )"},
        BadOptions{"SocketPathTooLong", R"({"socketPath":")" + kLongPath + R"("})",
                   R"("socketPath" must be a path of 1 to 107 bytes)"},
        BadOptions{"SocketPathEmpty", R"({"socketPath":""})", R"("socketPath" must be)"},
        BadOptions{"ConfigurationNotObject", R"({"providerConfiguration":"x"})",
                   R"("providerConfiguration" must be an object)"},
        BadOptions{"NestedSocketPathTooLong",
                   R"({"providerConfiguration":{"socketPath":")" + kLongPath + R"("}})",
                   R"("providerConfiguration.socketPath" must be a path)"},
        BadOptions{"NestedUnknownKey", R"({"providerConfiguration":{"frontDoorPort":1}})",
                   R"(unknown key "providerConfiguration.frontDoorPort")"}),
    CaseName());

// Every key the provider reads, in every shape the check lets through; what passes reaches the
// provider unchanged. Only a missing front-door port is worth a warning.
TEST(StartOptionsTest, GoodOptionsPassUnchanged) {
  const std::pair<std::string, std::size_t> cases[] = {
      {R"({"frontDoorHost":"127.0.0.1","frontDoorPort":8443,"socketPath":"/run/tarnwick/ne.sock",)"
       R"("watchedSigningIDs":["/usr/bin/curl"],"watchedPIDs":[1,4194304]})",
       0},
      {R"({"frontDoorPort":1,"frontDoorHost":"::1","watchedSigningIDs":[],"watchedPIDs":[]})", 0},
      {R"({"frontDoorPort":65535,"providerConfiguration":{"socketPath":"/s"}})", 0},
      {R"({"frontDoorPort":8443,"providerConfiguration":{}})", 0},
      {"{}", 1}};
  for (const auto& [bytes, warnings] : cases) {
    const StartOptionsResult result = parseStartOptions(bytes);
    ASSERT_TRUE(result.options) << bytes << ": " << result.error;
    EXPECT_EQ(*result.options, Json::parse(bytes));
    ASSERT_EQ(result.warnings.size(), warnings) << bytes;
    if (warnings > 0) {
      EXPECT_NE(result.warnings[0].find("uninspected"), std::string::npos);
    }
  }
}

// Whatever is at the path, the answer is one line naming it, and nothing is read without bound.
TEST(StartOptionsTest, FilesThatAreNoOptionsAreNamedInTheError) {
  const std::string path = ::testing::TempDir() + "options-" + std::to_string(::getpid());
  std::ofstream(path) << std::string((1 << 20) + 1, ' ');
  const std::pair<std::string, const char*> cases[] = {{path, "is larger than 1048576 bytes"},
                                                       {"/dev/zero", "is not a regular file"},
                                                       {"/nonexistent/o.json", "No such file"},
                                                       {::testing::TempDir(), "not a regular"}};
  for (const auto& [file, error] : cases) {
    const StartOptionsResult result = readStartOptionsFile(file);
    EXPECT_FALSE(result.options);
    EXPECT_EQ(result.error.find("options file " + file + ": "), 0u) << result.error;
    EXPECT_NE(result.error.find(error), std::string::npos) << result.error;
  }
  std::ofstream(path) << "{}";
  EXPECT_EQ(readStartOptionsFile(path).warnings.at(0).find("options file " + path + " has no"), 0u);
  ::unlink(path.c_str());
}

}  // namespace
}  // namespace tarnwick::host
