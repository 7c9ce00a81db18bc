// The agent's protocol end to end: the real executable on generated projects.

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <map>

#include "sample_project.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using Bytes = std::map<std::string, std::string>;

Bytes packageBytes(const std::filesystem::path& root) {
  Bytes bytes;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    if (entry.is_regular_file())
      bytes[std::filesystem::relative(entry.path(), root).string()] = readFile(entry.path(), SIZE_MAX);
  return bytes;
}

class AgentCommandsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    home_ = new testing::ScopedDataHome();
    ProjectStore store;
    package_ = new ProjectPackage(makeSampleProject(store));
    id_ = store.readManifest(*package_).id.string();
    pristine_ = new Bytes(packageBytes(package_->rootPath));
  }
  static void TearDownTestSuite() {
    delete pristine_;
    delete package_;
    delete home_;
  }
  // Each test starts from the project as generated.
  void SetUp() override {
    std::filesystem::remove_all(package_->rootPath);
    for (const auto& [relative, content] : *pristine_) {
      std::filesystem::create_directories((package_->rootPath / relative).parent_path());
      std::ofstream(package_->rootPath / relative, std::ios::binary) << content;
    }
    std::filesystem::remove_all(home_->path() / "Vumo" / "AgentExchange");
  }

  static testing::ProcessResult vumo(std::vector<std::string> words) {
    words.insert(words.begin(), "cli");
    return testing::runVumo(words, {{"XDG_DATA_HOME", home_->path().string()}});
  }
  static Json ok(std::vector<std::string> words) {
    auto result = vumo(words);
    EXPECT_EQ(result.status, 0) << result.standardError;
    EXPECT_TRUE(result.standardError.empty());
    return Json::parse(result.standardOutput);
  }
  static Json failure(std::vector<std::string> words, int status) {
    auto result = vumo(words);
    EXPECT_EQ(result.status, status) << result.standardOutput << result.standardError;
    EXPECT_TRUE(result.standardOutput.empty());
    return Json::parse(result.standardError);
  }
  static std::vector<std::string> confirmation(const Json& preview) {
    return preview.at("confirmationArguments").get<std::vector<std::string>>();
  }
  static std::string prefix() { return id_.substr(0, 6); }

  static inline testing::ScopedDataHome* home_ = nullptr;
  static inline ProjectPackage* package_ = nullptr;
  static inline std::string id_;
  static inline Bytes* pristine_ = nullptr;
};

TEST_F(AgentCommandsTest, ListAndDescribeReadTheProjectInMilliseconds) {
  Json list = ok({"list"});
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["id"], id_);
  EXPECT_EQ(list[0]["durationMilliseconds"], 12000);

  Json description = ok({"describe", prefix()});
  EXPECT_EQ(description["sequenceDurationMilliseconds"], 12000);
  EXPECT_EQ(description["clickMilliseconds"], (Json{2000, 2400, 2900, 7000, 7300}));
  EXPECT_EQ(description["captionCueCount"], 0);
  EXPECT_FALSE(description.contains("captionLanguage"));
  EXPECT_EQ(description["timelineDigest"], sha256HexOfFile(package_->timelinePath(), SIZE_MAX));
  EXPECT_EQ(description["tracks"],
            (Json{{"screen", true}, {"systemAudio", true}, {"microphone", true}, {"webcam", false}}));
  EXPECT_GE(description["zooms"].size(), 1u);
}

TEST_F(AgentCommandsTest, UnknownAndAmbiguousPrefixesShareCodeAndStatus) {
  Json unknown = failure({"describe", "ZZZZ"}, 3);
  EXPECT_EQ(unknown["error"], "project_not_found");
  EXPECT_EQ(unknown["message"], "Project not found: ZZZZ");
}

TEST_F(AgentCommandsTest, PreviewWritesNothingAndItsArgumentsCommitTheSameChange) {
  Json preview = ok({"cut", prefix(), "--range", "1000,2500"});
  EXPECT_FALSE(preview["applied"]);
  EXPECT_FALSE(preview.contains("resultingDigest"));
  EXPECT_EQ(packageBytes(package_->rootPath), *pristine_);

  Json commit = ok(confirmation(preview));
  EXPECT_TRUE(commit["applied"]);
  EXPECT_FALSE(commit.contains("confirmationArguments"));
  EXPECT_EQ(commit["after"], preview["after"]);
  EXPECT_EQ(commit["normalizedCuts"], preview["normalizedCuts"]);
  EXPECT_EQ(ok({"describe", prefix()})["timelineDigest"], commit["resultingDigest"]);
  EXPECT_EQ(ok({"describe", prefix()})["sequenceDurationMilliseconds"], 10500);
}

TEST_F(AgentCommandsTest, AStaleDigestIsAConflictThatChangesNothing) {
  Json preview = ok({"speed-set", prefix(), "--range", "3000,6000", "--rate", "2"});
  EXPECT_EQ(confirmation(preview)[5], "2");
  ok(confirmation(ok({"set", prefix(), "cursor.scale=1.5"})));
  Bytes before = packageBytes(package_->rootPath);
  Json conflict = failure(confirmation(preview), 4);
  EXPECT_EQ(conflict["error"], "timeline_conflict");
  EXPECT_EQ(packageBytes(package_->rootPath), before);
}

TEST_F(AgentCommandsTest, RestoringTheNewestHistoryEntryTogglesBetweenTwoStates) {
  const std::string original = ok({"describe", prefix()})["timelineDigest"];
  ok(confirmation(ok({"cut", prefix(), "--range", "500,1500", "--source"})));
  const std::string cut = ok({"describe", prefix()})["timelineDigest"];

  Json restored = ok(confirmation(ok({"restore", prefix(), "--index", "0"})));
  EXPECT_EQ(ok({"describe", prefix()})["sequenceDurationMilliseconds"], 12000);
  Json again = ok(confirmation(ok({"restore", prefix(), "--index", "0"})));
  EXPECT_EQ(again["resultingDigest"], cut);
  EXPECT_EQ(restored["resultingDigest"], original);
  // Newest first: the state before each of the three commits.
  Json entries = ok({"history", prefix()})["entries"];
  ASSERT_EQ(entries.size(), 3u);
  EXPECT_EQ(entries[0]["timelineDigest"], original);
  EXPECT_EQ(entries[1]["timelineDigest"], cut);
  EXPECT_EQ(entries[2]["timelineDigest"], original);
  Json missing = failure({"restore", prefix(), "--index", "9"}, 5);
  EXPECT_EQ(missing["error"], "validation");
}

TEST_F(AgentCommandsTest, SettingsConfirmationIsSortedByKey) {
  auto a = confirmation(ok({"set", prefix(), "cursor.show=false", "canvas.aspect=1:1"}));
  auto b = confirmation(ok({"set", prefix(), "canvas.aspect=1:1", "cursor.show=false"}));
  EXPECT_EQ(a, b);
  EXPECT_EQ(a[2], "canvas.aspect=1:1");
  Json unknown = failure({"set", prefix(), "no.such=1"}, 5);
  EXPECT_EQ(unknown["error"], "validation");
}

TEST_F(AgentCommandsTest, SpeedAndSettingsWorkWhileRegeneratedZoomsSpanACut) {
  ok(confirmation(ok({"cut", prefix(), "--range", "3000,3500", "--source"})));
  ok(confirmation(ok({"zoom-regen", prefix()})));
  Json speed = ok(confirmation(ok({"speed-set", prefix(), "--range", "6000,7000", "--rate", "2", "--source"})));
  EXPECT_EQ(speed["after"]["speedSegmentCount"], 1);
  ok(confirmation(ok({"set", prefix(), "cursor.scale=2"})));
  EXPECT_EQ(ok({"describe", prefix()})["cursor"]["scale"], 2.0);
}

TEST_F(AgentCommandsTest, ZoomOverRemovedContentCarriesDetails) {
  ok(confirmation(ok({"cut", prefix(), "--range", "9500,11000", "--source"})));
  Json error = failure({"zoom-add", prefix(), "--range", "9800,10500", "--source"}, 5);
  EXPECT_EQ(error["error"], "validation");
  ASSERT_TRUE(error.contains("details"));
  EXPECT_EQ(error["details"]["operation"], "zoom");
  EXPECT_EQ(error["details"]["requestedRange"], (Json{{"startMilliseconds", 9800}, {"endMilliseconds", 10500}}));
  EXPECT_FALSE(error["details"].contains("zoomID"));
  EXPECT_EQ(error["details"]["normalizedCuts"], Json::array());
}

TEST_F(AgentCommandsTest, ZoomCommandsAddRemoveAndRegenerate) {
  std::size_t zooms = ok({"describe", prefix()})["zooms"].size();
  Json added = ok({"zoom-add", prefix(), "--range", "10000,11500", "--level", "2", "--at", "0.25,0.75"});
  EXPECT_EQ(confirmation(added)[5], "2");
  EXPECT_EQ(confirmation(added)[6], "--at");
  EXPECT_EQ(confirmation(added)[7], "0.25,0.75");
  ok(confirmation(added));
  EXPECT_EQ(ok({"describe", prefix()})["zooms"].size(), zooms + 1);
  ok(confirmation(ok({"zoom-rm", prefix(), "--all"})));
  EXPECT_EQ(ok({"describe", prefix()})["zooms"].size(), 0u);
  Json regenerated = ok({"zoom-regen", prefix()});
  EXPECT_EQ(regenerated["after"]["zoomCount"], zooms);
  EXPECT_EQ(failure({"zoom-rm", prefix(), "--index", "0"}, 5)["error"], "validation");
}

class EditPlanTest : public AgentCommandsTest {
 protected:
  Json prepare() { return ok({"edit-plan-prepare", prefix()}); }
  static void writePlan(const Json& job, const Json& operations) {
    Json plan = {{"protocolVersion", 3},
                 {"jobID", job["jobID"]},
                 {"projectID", job["projectID"]},
                 {"timelineDigest", job["timelineDigest"]},
                 {"captionsDigest", job["captionsDigest"]},
                 {"timeDomain", "source milliseconds"},
                 {"operations", operations}};
    writeFileAtomically(job["planPath"].get<std::string>(), encodeDocument(plan));
  }
  static Json speedAndZoom() {
    return Json::parse(R"([
      {"type": "cut", "range": {"startMilliseconds": 500, "endMilliseconds": 1000}},
      {"type": "speed", "range": {"startMilliseconds": 6000, "endMilliseconds": 9000}, "rate": 2.0},
      {"type": "zoom-clear"},
      {"type": "zoom-add", "range": {"startMilliseconds": 3500, "endMilliseconds": 5500}, "level": 1.6}
    ])");
  }
};

TEST_F(EditPlanTest, PreviewIsRepeatableAndItsArgumentsCommitOnce) {
  Json job = prepare();
  EXPECT_EQ(job["timeDomain"], "source milliseconds");
  writePlan(job, speedAndZoom());
  Json first = ok({"edit-plan-preview", prefix(), "--job", job["jobID"]});
  Json second = ok({"edit-plan-preview", prefix(), "--job", job["jobID"]});
  EXPECT_EQ(first, second);
  EXPECT_EQ(first["after"]["zoomCount"], 1);
  EXPECT_EQ(first["operations"].size(), 4u);

  Json commit = ok(confirmation(first));
  EXPECT_TRUE(commit["applied"]);
  EXPECT_EQ(commit["after"], first["after"]);
  EXPECT_EQ(ok({"describe", prefix()})["timelineDigest"], commit["resultingDigest"]);
  EXPECT_EQ(ok({"history", prefix()})["entries"].size(), 1u);
  // The job is bound to the timeline it was prepared from.
  EXPECT_EQ(failure(confirmation(first), 4)["error"], "edit_plan_conflict");
}

TEST_F(EditPlanTest, AChangedPlanFileIsAConflict) {
  Json job = prepare();
  writePlan(job, speedAndZoom());
  Json preview = ok({"edit-plan-preview", prefix(), "--job", job["jobID"]});
  Json changed = speedAndZoom();
  changed[1]["rate"] = 3.0;
  writePlan(job, changed);
  Bytes before = packageBytes(package_->rootPath);
  EXPECT_EQ(failure(confirmation(preview), 4)["error"], "edit_plan_conflict");
  EXPECT_EQ(packageBytes(package_->rootPath), before);
}

TEST_F(EditPlanTest, LinksOversizedAndMalformedPlansAreRefused) {
  Json job = prepare();
  const std::filesystem::path planPath = job["planPath"].get<std::string>();
  testing::TemporaryDirectory elsewhere;
  writePlan(job, speedAndZoom());
  std::filesystem::rename(planPath, elsewhere.path() / "plan.json");
  std::filesystem::create_symlink(elsewhere.path() / "plan.json", planPath);
  EXPECT_EQ(failure({"edit-plan-preview", prefix(), "--job", job["jobID"]}, 5)["error"], "validation");

  std::filesystem::remove(planPath);
  writeFileAtomically(planPath, std::string(1'048'577, ' '));
  Json large = failure({"edit-plan-preview", prefix(), "--job", job["jobID"]}, 5);
  EXPECT_EQ(large["message"], "Edit Plan文件超过1MB安全上限。");

  writeFileAtomically(planPath, "{\"protocolVersion\": 3");
  EXPECT_EQ(failure({"edit-plan-preview", prefix(), "--job", job["jobID"]}, 5)["message"],
            "Edit Plan Schema 1/2/3文档无效。");

  writePlan(
      job, Json::parse(R"([{"type": "speed", "range": {"startMilliseconds": 0, "endMilliseconds": 100}, "rate": 9}])"));
  EXPECT_EQ(failure({"edit-plan-preview", prefix(), "--job", job["jobID"]}, 5)["message"],
            "Edit Plan包含无效或互相冲突的操作。");
  EXPECT_EQ(packageBytes(package_->rootPath), *pristine_);
}

TEST_F(EditPlanTest, AJobOfAnotherTimelineIsStale) {
  Json job = prepare();
  writePlan(job, speedAndZoom());
  ok(confirmation(ok({"set", prefix(), "cursor.scale=2"})));
  EXPECT_EQ(failure({"edit-plan-preview", prefix(), "--job", job["jobID"]}, 4)["error"], "edit_plan_conflict");
  EXPECT_EQ(failure({"edit-plan-preview", prefix(), "--job", "0F8FAD5B-D9CB-469F-A165-70867728950E"}, 5)["error"],
            "validation");
}

TEST_F(EditPlanTest, CaptionsAreReadInSourceTimeAndAPlanReportsWhatItsCutsDoToThem) {
  ProjectStore store;
  CaptionDocument document;
  document.sourceTrack = MediaTrackKind::systemAudio;
  document.language = "zh-Hans";
  document.basedOnTimelineDigest = sha256HexOfFile(package_->timelinePath(), SIZE_MAX);
  document.cues = {
      {Uuid::random(), ProjectTime::fromMilliseconds(400), ProjectTime::fromMilliseconds(1200), "开始录制", {}, {}},
      {Uuid::random(), ProjectTime::fromMilliseconds(4000), ProjectTime::fromMilliseconds(5000), "打开设置", {}, {}}};
  store.commitCaptions(document, store.captionsDigest(*package_), store.timelineDigest(*package_), *package_);

  ok(confirmation(ok({"cut", prefix(), "--range", "4500,4800", "--source"})));
  Json captions = ok({"captions-read", prefix()});
  EXPECT_EQ(captions["language"], "zh-Hans");
  EXPECT_EQ(captions["sourceTrack"], "systemAudio");
  EXPECT_FALSE(captions.contains("hint"));
  ASSERT_EQ(captions["cues"].size(), 2u);
  EXPECT_EQ(captions["cues"][1]["sourceStartMilliseconds"], 4000);
  EXPECT_EQ(captions["cues"][1]["sequenceRanges"].size(), 2u);
  EXPECT_EQ(ok({"describe", prefix()})["captionCueCount"], 2);

  Json job = prepare();
  writePlan(job, Json::parse(R"([{"type": "cut", "range": {"startMilliseconds": 0, "endMilliseconds": 2000}},
                                 {"type": "zoom-clear"}])"));
  Json preview = ok({"edit-plan-preview", prefix(), "--job", job["jobID"]});
  EXPECT_EQ(preview["fullyRemovedCaptionIDs"], (Json{document.cues[0].id.string()}));
  EXPECT_EQ(preview["captionImpacts"][0]["kind"], "fully-removed");
  Bytes before = packageBytes(package_->rootPath);
  ok(confirmation(preview));
  // A timeline commit never changes the caption file.
  EXPECT_EQ(packageBytes(package_->rootPath).at("edits/captions.json"), before.at("edits/captions.json"));
}

TEST_F(AgentCommandsTest, CaptionsReadWithoutCaptionsGivesAHint) {
  Json captions = ok({"captions-read", prefix()});
  EXPECT_EQ(captions["cues"], Json::array());
  EXPECT_EQ(captions["hint"], "当前项目没有字幕，请先执行captions-prepare。");
  EXPECT_EQ(captions["captionsDigest"], "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_FALSE(captions.contains("language"));
}

}  // namespace
}  // namespace vumo
