// Runs the real `vumo` executable as an agent would and checks statuses and streams.

#include <gtest/gtest.h>

#include <fstream>

#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using testing::runVumo;

class EndToEndTest : public ::testing::Test {
 protected:
  testing::ProcessResult vumo(std::vector<std::string> arguments) {
    return runVumo(arguments, {{"XDG_DATA_HOME", home.path().string()}});
  }
  bool dataFolderIsEmpty() const { return std::filesystem::is_empty(home.path()); }
  testing::TemporaryDirectory home;
};

TEST_F(EndToEndTest, BareCliPrintsUsageAndCreatesNothing) {
  auto result = vumo({"cli"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.standardOutput.starts_with("Vumo Headless Agent剪辑命令。"));
  EXPECT_TRUE(result.standardOutput.ends_with("三Digest确认参数。\n"));
  EXPECT_TRUE(result.standardError.empty());
  EXPECT_TRUE(dataFolderIsEmpty());
}

TEST_F(EndToEndTest, VersionLineIgnoresFurtherWordsAndTouchesNoStore) {
  for (auto words :
       {std::vector<std::string>{"cli", "version"}, {"cli", "--version", "extra"}, {"cli", "version", "x"}}) {
    auto result = vumo(words);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.standardOutput, "{\"protocolVersion\":1,\"version\":\"0.1.0\"}\n");
    EXPECT_TRUE(result.standardError.empty());
  }
  EXPECT_TRUE(dataFolderIsEmpty());
}

TEST_F(EndToEndTest, HelpTopicPrintsItsText) {
  auto result = vumo({"cli", "help", "edit-plan"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.standardOutput.starts_with("# Vumo Edit Plan\n\n1. 执行`edit-plan-prepare <id-prefix>`"));
  EXPECT_TRUE(dataFolderIsEmpty());
}

TEST_F(EndToEndTest, MalformedRangeIsStatusTwoWithTheEnvelopeOnStandardError) {
  auto result = vumo({"cli", "cut", "abc", "--range", "5,1"});
  EXPECT_EQ(result.status, 2);
  EXPECT_TRUE(result.standardOutput.empty());
  Json envelope = Json::parse(result.standardError);
  EXPECT_EQ(envelope, (Json{{"protocolVersion", 1}, {"error", "invalid_arguments"}, {"message", "参数无效：--range"}}));
  EXPECT_TRUE(dataFolderIsEmpty());
}

TEST_F(EndToEndTest, AnythingButExactlyCliOpensTheApplication) {
  // Without a display the application cannot open, and says so instead of running a command.
  for (auto words : {std::vector<std::string>{"CLI", "list"}, {}, {"--cli"}}) {
    auto result = testing::runProgram(
        testing::vumoBinary(), words,
        {{"XDG_DATA_HOME", home.path().string()}, {"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt}});
    EXPECT_EQ(result.status, 6);
    EXPECT_TRUE(result.standardOutput.empty());
    EXPECT_NE(result.standardError.find("the desktop application cannot start"), std::string::npos);
  }
  EXPECT_TRUE(dataFolderIsEmpty());
}

TEST_F(EndToEndTest, PathsAreEscapedInErrorsOnly) {
  auto missing = home.path() / "nowhere" / "frame.png";
  auto result = vumo({"cli", "frame", "abc", "--ms", "0", "--out", missing.string()});
  EXPECT_EQ(result.status, 6);
  EXPECT_NE(result.standardError.find("\\/nowhere"), std::string::npos);
  EXPECT_EQ(Json::parse(result.standardError)["message"], "输出目录不存在：" + missing.parent_path().string());

  auto info = vumo({"cli", "system-info"});
  EXPECT_EQ(info.status, 0);
  EXPECT_TRUE(info.standardError.empty());
  EXPECT_TRUE(Json::accept(info.standardOutput));
  EXPECT_TRUE(std::filesystem::is_directory(home.path() / "Vumo" / "Projects"));
}

TEST_F(EndToEndTest, ExistingOutputFailsBeforeTheProjectIsLookedUp) {
  auto exports = home.path() / "Vumo" / "Exports";
  std::filesystem::create_directories(exports);
  { std::ofstream(exports / "shot.jpg") << "old"; }
  auto result = vumo({"cli", "frame", "no-such-project", "--ms", "0", "--out", "shot.jpg"});
  EXPECT_EQ(result.status, 6);
  EXPECT_EQ(Json::parse(result.standardError)["error"], "execution");
  EXPECT_NE(result.standardError.find("--replace"), std::string::npos);
}

}  // namespace
}  // namespace vumo
