// The sample-project tool as the demo and a newcomer run it: it writes only where it is told.

#include <gtest/gtest.h>

#include <map>

#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

// Runs the tool with HOME and XDG_DATA_HOME as given (an empty value unsets the variable).
testing::ProcessResult runTool(const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& overrides) {
  std::map<std::string, std::optional<std::string>> environment;
  for (const auto& [key, value] : overrides)
    environment[key] = value.empty() ? std::nullopt : std::optional<std::string>(value);
  return testing::runProgram(VUMO_SAMPLE_PROJECT_TOOL, arguments, environment);
}

// The package folders directly in a projects folder.
std::vector<std::string> packagesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(folder, ignored)) names.push_back(entry.path().filename().string());
  return names;
}

TEST(SampleProjectToolTest, WritesWhereItIsToldAndNowhereElse) {
  testing::TemporaryDirectory home, dataHome, output;
  struct Case {
    const char* name;
    std::vector<std::string> arguments;
    std::map<std::string, std::string> environment;
    fs::path expectedProjects;
  };
  const Case cases[] = {
      {"data home", {}, {{"XDG_DATA_HOME", dataHome.path()}}, dataHome.path() / "Vumo" / "Projects"},
      {"output folder",
       {"--output", (output.path() / "made").string()},
       {{"XDG_DATA_HOME", dataHome.path()}},
       output.path() / "made"},
      {"home without a data home", {}, {{"XDG_DATA_HOME", ""}}, home.path() / ".local" / "share" / "Vumo" / "Projects"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::map<std::string, std::string> environment = c.environment;
    environment["HOME"] = home.path();
    const auto before = packagesIn(c.expectedProjects).size();
    auto run = runTool(c.arguments, environment);
    ASSERT_EQ(run.status, 0);
    auto packages = packagesIn(c.expectedProjects);
    ASSERT_EQ(packages.size(), before + 1);
    // The id it prints names the package it made.
    ASSERT_EQ(run.standardOutput.size(), 37u);
    EXPECT_TRUE(fs::exists(c.expectedProjects / (run.standardOutput.substr(0, 36) + ".vumo")));
  }
  // The data home got the first project only; the output folder was not created inside it.
  EXPECT_EQ(packagesIn(dataHome.path() / "Vumo" / "Projects").size(), 1u);
}

TEST(SampleProjectToolTest, HelpAndUnknownArgumentsMakeNothing) {
  testing::TemporaryDirectory home, dataHome;
  const std::map<std::string, std::string> environment{{"HOME", home.path()}, {"XDG_DATA_HOME", dataHome.path()}};
  auto help = runTool({"--help"}, environment);
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.standardOutput.starts_with("usage: vumo-sample-project [--output <folder>]")) << help.standardOutput;
  for (const auto& arguments : std::vector<std::vector<std::string>>{{"--outputs", "x"}, {"--output"}, {"extra"}}) {
    EXPECT_EQ(runTool(arguments, environment).status, 2);
  }
  EXPECT_TRUE(fs::is_empty(home.path()));
  EXPECT_TRUE(fs::is_empty(dataHome.path()));
}

}  // namespace
}  // namespace vumo
