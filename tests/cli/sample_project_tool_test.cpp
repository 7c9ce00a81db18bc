// The sample-project tool as the demo and a newcomer run it: it writes only where it is told.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include <map>

#include "support/test_support.h"

extern char** environ;

namespace vumo {
namespace {

namespace fs = std::filesystem;

struct ToolRun {
  int status = -1;
  std::string standardOutput;
};

// Runs the tool with HOME and XDG_DATA_HOME as given (an empty value unsets the variable).
ToolRun runTool(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& overrides) {
  std::vector<std::string> words{VUMO_SAMPLE_PROJECT_TOOL};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  std::map<std::string, std::string> environment;
  for (char** e = environ; *e != nullptr; ++e) {
    std::string entry = *e;
    if (auto eq = entry.find('='); eq != std::string::npos) environment[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [key, value] : overrides) {
    if (value.empty())
      environment.erase(key);
    else
      environment[key] = value;
  }
  std::vector<std::string> entries;
  for (const auto& [key, value] : environment) entries.push_back(key + "=" + value);
  std::vector<char*> envp;
  for (auto& entry : entries) envp.push_back(entry.data());
  envp.push_back(nullptr);

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int rc = ::posix_spawn(&pid, words.front().c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (rc != 0) throw std::runtime_error("spawn failed");
  ToolRun result;
  char buffer[4096];
  for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) result.standardOutput.append(buffer, n);
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
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
    ToolRun run = runTool(c.arguments, environment);
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
  ToolRun help = runTool({"--help"}, environment);
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
