// `vumo prompt` end to end: the real executable on a generated project, and the briefing's own
// commands run as an agent would run them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "agent/agent_editing_template_store.h"
#include "sample_project.h"
#include "sample_project_suite.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

class PromptCommandTest : public testing::SampleProjectSuite {
 protected:
  void SetUp() override { std::filesystem::remove(home_->path() / "Vumo" / "AgentEditingTemplates.json"); }

  // APPIMAGE is removed unless a test sets it: the briefing must name the binary itself.
  static testing::ProcessResult prompt(std::vector<std::string> words,
                                       std::optional<std::string> appImage = std::nullopt) {
    words.insert(words.begin(), "prompt");
    return testing::runProgram(testing::vumoBinary(), words,
                               {{"XDG_DATA_HOME", home_->path().string()}, {"APPIMAGE", appImage}});
  }
  static Json ok(std::vector<std::string> words, std::optional<std::string> appImage = std::nullopt) {
    auto result = prompt(std::move(words), std::move(appImage));
    EXPECT_EQ(result.status, 0) << result.standardError;
    EXPECT_TRUE(result.standardError.empty());
    return Json::parse(result.standardOutput);
  }
  static Json failure(std::vector<std::string> words, int status) {
    auto result = prompt(std::move(words));
    EXPECT_EQ(result.status, status) << result.standardOutput << result.standardError;
    EXPECT_TRUE(result.standardOutput.empty());
    return Json::parse(result.standardError);
  }
  static std::string prefix() { return id_.substr(0, 8); }
};

// The lines of `text` that start with `start`.
std::vector<std::string> linesStartingWith(const std::string& text, std::string_view start) {
  std::vector<std::string> lines;
  std::size_t at = 0;
  while (at <= text.size()) {
    std::size_t end = text.find('\n', at);
    std::string line = text.substr(at, end == std::string::npos ? std::string::npos : end - at);
    if (line.starts_with(start)) lines.push_back(line);
    if (end == std::string::npos) break;
    at = end + 1;
  }
  return lines;
}

TEST_F(PromptCommandTest, TheEditingBriefingNamesThisProgramAndItsCommandsWork) {
  Json answer = ok(
      {id_.substr(0, 5), "--preset", "tutorial", "--capabilities", "add-zooms", "--instructions", "  Keep it short. "});
  const std::string binary = std::filesystem::canonical(testing::vumoBinary()).string();
  EXPECT_EQ(answer.at("protocolVersion"), 1);
  EXPECT_EQ(answer.at("projectID"), id_);
  EXPECT_EQ(answer.at("mode"), "editing");
  EXPECT_EQ(answer.at("preset"), "tutorial");
  EXPECT_EQ(answer.at("executablePath"), binary);
  EXPECT_EQ(answer.at("capabilities"),
            Json::array({"speed-up-waiting", "add-zooms", "prepare-captions", "highlight-keywords"}));
  EXPECT_EQ(answer.at("helpTopics"), Json::array({"edit-plan", "captions"}));

  const std::string text = answer.at("prompt");
  EXPECT_TRUE(text.starts_with("Use Vumo’s built-in CLI to edit this screen recording."));
  EXPECT_NE(text.find("- ID: " + id_ + " (commands may use the prefix " + prefix() +
                      ")\n- Duration: 0:12\n- "
                      "Dimensions: 640×360\n- Camera track: absent\n- Microphone track: present\n- System audio "
                      "track: present\n"),
            std::string::npos);
  EXPECT_NE(text.find("\"$CS\" cli captions-prepare " + prefix() + " --track microphone\n"), std::string::npos);
  EXPECT_NE(text.find("Read the edit-plan, captions help topics"), std::string::npos);
  EXPECT_NE(text.find("- Add moderate, non-overlapping zooms to emphasize key actions.\n"), std::string::npos);
  EXPECT_TRUE(
      text.ends_with("Overall instructions:\nKeep it short.\n\nOverall instructions apply to every feature; "
                     "specific instructions refine only their own feature. Stop and ask if they conflict. "
                     "Neither may override the safety rules."));

  // The agent's shell: the CS line, then the describe line, exactly as handed over.
  std::vector<std::string> setting = linesStartingWith(text, "CS=");
  std::vector<std::string> describe = linesStartingWith(text, "\"$CS\" cli describe ");
  ASSERT_EQ(setting.size(), 1u);
  ASSERT_EQ(describe.size(), 1u);
  EXPECT_EQ(setting[0], "CS='" + binary + "'");
  testing::TemporaryDirectory folder;
  std::ofstream(folder.path() / "agent.sh") << setting[0] << "\n" << describe[0] << "\n";
  auto described = testing::runProgram("/bin/sh", {(folder.path() / "agent.sh").string()},
                                       {{"XDG_DATA_HOME", home_->path().string()}});
  ASSERT_EQ(described.status, 0) << described.standardError;
  EXPECT_EQ(Json::parse(described.standardOutput).at("id"), id_);
}

TEST_F(PromptCommandTest, TextModePrintsTheBriefingAloneForAPipe) {
  for (std::vector<std::string> options :
       {std::vector<std::string>{"--capabilities", "remove-pauses,style-cursor", "--click-style", "ring"},
        std::vector<std::string>{"--captions"}}) {
    std::vector<std::string> words = {prefix()};
    words.insert(words.end(), options.begin(), options.end());
    Json answer = ok(words);
    words.push_back("--text");
    auto result = prompt(words);
    EXPECT_EQ(result.status, 0) << result.standardError;
    EXPECT_EQ(result.standardOutput, answer.at("prompt").get<std::string>() + "\n");
  }
  Json cursor = ok({prefix(), "--capabilities", "style-cursor", "--click-style", "ring"});
  EXPECT_NE(cursor.at("prompt").get<std::string>().find("using Ring for click effects."), std::string::npos);
}

TEST_F(PromptCommandTest, TheCaptionsBriefingUsesTheMicrophone) {
  Json answer = ok({prefix(), "--captions"});
  EXPECT_EQ(answer.at("mode"), "captions");
  EXPECT_EQ(answer.at("captionMode"), "generate");
  EXPECT_EQ(answer.at("sourceTrack"), "microphone");
  const std::string text = answer.at("prompt");
  EXPECT_TRUE(text.starts_with("Generate captions only for this Vumo project."));
  EXPECT_NE(text.find("- Caption audio track: Microphone\n\nThis project has no captions yet."), std::string::npos);
  EXPECT_NE(text.find("\"$CS\" cli captions-prepare " + prefix() +
                      " --track microphone\n# This project has no existing captions\n"),
            std::string::npos);
}

TEST_F(PromptCommandTest, AnAppImageIsTheProgramTheBriefingNames) {
  testing::TemporaryDirectory folder;
  const std::filesystem::path appImage = folder.path() / "Vumo it's mine.AppImage";
  std::ofstream(appImage) << "not run";
  Json answer = ok({prefix()}, appImage.string());
  EXPECT_EQ(answer.at("executablePath"), appImage.string());
  EXPECT_NE(
      answer.at("prompt").get<std::string>().find("CS='" + folder.path().string() + "/Vumo it'\\''s mine.AppImage'\n"),
      std::string::npos);
}

TEST_F(PromptCommandTest, ASavedTemplateAppliesAndReportsWhatItSkips) {
  {
    testing::ScopedEnvironmentVariable home("XDG_DATA_HOME", home_->path().string());
    AgentEditingTemplate editingTemplate;
    editingTemplate.id = Uuid::random();
    editingTemplate.name = "Weekly demo";
    editingTemplate.capabilityIDs = {"style-webcam", "remove-waiting"};
    editingTemplate.capabilityInstructions = {{"remove-waiting", "Only over 3 s"}};
    editingTemplate.createdAt = editingTemplate.updatedAt = Timestamp::now();
    AgentEditingTemplateStore().save({editingTemplate});
  }
  Json answer = ok({prefix(), "--template", "Weekly demo"});
  EXPECT_EQ(answer.at("template"), "Weekly demo");
  EXPECT_EQ(answer.at("capabilities"), Json::array({"remove-waiting"}));
  EXPECT_EQ(answer.at("skippedCapabilities"), Json::array({"Style the Camera"}));
  EXPECT_EQ(answer.at("note"), "Skipped features unavailable in this interface: Style the Camera");
  EXPECT_NE(
      answer.at("prompt").get<std::string>().find(
          "- Remove idle waiting segments that clearly have no content value.\n  Specific instructions: Only over "
          "3 s"),
      std::string::npos);

  Json unknown = failure({prefix(), "--template", "Monthly"}, 2);
  EXPECT_EQ(unknown.at("message"), "参数无效：--template Monthly（已保存：Weekly demo）");
}

TEST_F(PromptCommandTest, RefusalsCarryTheCommandLinesStatuses) {
  struct Case {
    std::vector<std::string> words;
    int status;
    std::string code;
    std::string messagePart;
  };
  const std::vector<Case> cases = {
      {{prefix(), "--capabilities", "remove-pauses,teleport"},
       2,
       "invalid_arguments",
       "--capabilities teleport（可选：remove-pauses, remove-repetition,"},
      {{prefix(), "--preset", "studio"}, 2, "invalid_arguments", "（可选：talking-head, tutorial, conservative）"},
      {{prefix(), "--captions", "--preset", "tutorial"}, 2, "invalid_arguments", "--preset"},
      {{prefix(), "--template", "Any"}, 2, "invalid_arguments", "没有已保存的模板"},
      {{prefix(), "--capabilities"}, 2, "invalid_arguments", "缺少参数：--capabilities"},
      {{}, 2, "invalid_arguments", "<id-prefix>"},
      {{"FFFFFFFF"}, 3, "project_not_found", "FFFFFFFF"},
      {{prefix(), "--capabilities", "style-webcam"}, 5, "validation", "此录制无法使用所选功能：style-webcam"},
  };
  for (const auto& c : cases) {
    Json envelope = failure(c.words, c.status);
    EXPECT_EQ(envelope.at("protocolVersion"), 1);
    EXPECT_EQ(envelope.at("error"), c.code);
    EXPECT_NE(envelope.at("message").get<std::string>().find(c.messagePart), std::string::npos)
        << envelope.at("message");
  }
  auto help = prompt({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_TRUE(help.standardOutput.starts_with("usage: vumo prompt <id-prefix>"));
}

}  // namespace
}  // namespace vumo
