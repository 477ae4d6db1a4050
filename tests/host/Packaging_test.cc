// What `make install` puts in place: a unit systemd accepts, whose control socket is where run,
// watch and status look by default, and an example options file that passes run's check.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "host/HostSettings.h"
#include "host/StartOptionsFile.h"

namespace tarnwick::host {
namespace {

namespace fs = std::filesystem;

const fs::path kPackaging = fs::path(TARNWICK_SOURCE_DIR) / "packaging";

std::string contentsOf(const fs::path& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(PackagingTest, TheUnitsControlSocketIsTheDefaultOne) {
  const std::string unit = contentsOf(kPackaging / "tarnwick-proxyext.service");
  std::smatch directory;
  ASSERT_TRUE(std::regex_search(unit, directory, std::regex("\nRuntimeDirectory=(\\S+)\n")));
  EXPECT_EQ("/run/" + directory[1].str(),
            fs::path(HostSettings::kDefaultControlSocketPath).parent_path().string());
  std::smatch command;
  ASSERT_TRUE(std::regex_search(unit, command, std::regex("\nExecStart=([^\n]+)\n")));
  EXPECT_EQ(command[1].str().find("--control-socket"), std::string::npos) << command[1];
  const StartOptionsResult example = readStartOptionsFile(kPackaging / "options.example.json");
  EXPECT_TRUE(example.options) << example.error;
  EXPECT_TRUE(example.warnings.empty());
}

// systemd reads the unit, as installed, without a complaint.
TEST(PackagingTest, SystemdAcceptsTheUnit) {
  if (std::system("command -v systemd-analyze >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "systemd-analyze is not installed";
  }
  const fs::path directory =
      fs::path(::testing::TempDir()) / ("unit-" + std::to_string(::getpid()));
  fs::create_directories(directory);
  const fs::path unit = directory / "tarnwick-proxyext.service";
  std::ofstream(unit) << std::regex_replace(contentsOf(kPackaging / "tarnwick-proxyext.service"),
                                            std::regex("/usr/local/bin/\\S+"),
                                            TARNWICK_PROXYEXT_BINARY);
  const fs::path report = directory / "verify.txt";
  const int status = std::system(
      ("systemd-analyze verify " + unit.string() + " >" + report.string() + " 2>&1").c_str());
  EXPECT_EQ(status, 0) << contentsOf(report);
  EXPECT_EQ(contentsOf(report), "");
  fs::remove_all(directory);
}

}  // namespace
}  // namespace tarnwick::host
