// `export` through the real executable on the generated sample recording (640×360), cut to its
// first second and shown on its own canvas shape, so that a film takes a moment even on the
// software rasteriser.

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "project/project_store.h"
#include "sample_project.h"
#include "sample_project_suite.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

class ExportCommand : public testing::SampleProjectSuite {
 protected:
  static void SetUpTestSuite() {
    SampleProjectSuite::SetUpTestSuite();
    // The film at the recording's own size needs the recording's own canvas shape.
    commitPreviewed({"cli", "cut", id_, "--range", "1000,12000"});
    commitPreviewed({"cli", "set", id_, "canvas.aspect=source"});
  }

  static testing::ProcessResult exportFilm(const std::string& id, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"export", id, "--resolution", "original", "--fps", "30"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return vumo(arguments);
  }

  testing::TemporaryDirectory out_;
};

TEST_F(ExportCommand, WritesTheFilmToTheExportsFolderAndAnswersWithWhatItWrote) {
  auto result = exportFilm(id_);
  ASSERT_EQ(result.status, 0) << result.standardError;
  const Json answer = Json::parse(result.standardOutput);
  const fs::path expected = home_->path() / "Vumo" / "Exports" / "Sample recording.mp4";
  EXPECT_EQ(answer["outputPath"], expected.string());
  EXPECT_EQ(answer["sizeBytes"], static_cast<std::int64_t>(fs::file_size(expected)));
  EXPECT_EQ(answer["durationMilliseconds"], 1000);
  EXPECT_EQ(answer["frameCount"], 30);
  EXPECT_EQ(answer["width"], 640);
  EXPECT_EQ(answer["height"], 360);
  const std::string encoder = answer["encoder"];
  EXPECT_TRUE(encoder == "libx264" || encoder == "h264_nvenc") << encoder;
  EXPECT_FALSE(answer.contains("note"));
  // Not a terminal: plain progress lines, the last one the completed export.
  EXPECT_NE(result.standardError.find("rendering"), std::string::npos);
  EXPECT_NE(result.standardError.find("completed  30 frames\n"), std::string::npos) << result.standardError;

  // Raw configuration words and the preset's own word are accepted; a named file lands in the
  // exports folder too.
  auto raw = vumo({"export", id_, "--preset", "highQuality", "--resolution", "original", "--fps", "fps30", "--codec",
                   "hevc", "--out", "raw.mov"});
  ASSERT_EQ(raw.status, 0) << raw.standardError;
  const Json rawAnswer = Json::parse(raw.standardOutput);
  EXPECT_EQ(rawAnswer["outputPath"], (home_->path() / "Vumo" / "Exports" / "raw.mov").string());
  EXPECT_EQ(rawAnswer["codec"], "hevc");
}

TEST_F(ExportCommand, AnExistingFileIsReplacedOnlyWhenAsked) {
  const fs::path film = out_.path() / "film.mp4";
  writeFileAtomically(film, "an older film");
  auto refused = exportFilm(id_, {"--out", film.string()});
  EXPECT_EQ(refused.status, 6);
  EXPECT_EQ(Json::parse(refused.standardError)["error"], "execution");
  EXPECT_TRUE(refused.standardOutput.empty());
  EXPECT_EQ(readFile(film, 1 << 20), "an older film");

  auto replaced = exportFilm(id_, {"--out", film.string(), "--replace"});
  ASSERT_EQ(replaced.status, 0) << replaced.standardError;
  EXPECT_GT(fs::file_size(film), 1000u);
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(out_.path())) names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"film.mp4"});
}

TEST_F(ExportCommand, AnInterruptCancelsAndLeavesTheOldFilmAsItWas) {
  const fs::path film = out_.path() / "film.mp4";
  writeFileAtomically(film, "an older film");
  testing::ProcessLaunch launch;
  launch.words = {testing::vumoBinary().string(),
                  "export",
                  id_,
                  "--resolution",
                  "1080p",
                  "--fps",
                  "60",
                  "--out",
                  film.string(),
                  "--replace"};
  launch.environment = {{"XDG_DATA_HOME", home_->path().string()}, {"XDG_CACHE_HOME", cache_->path().string()}};
  launch.whileRunning = [](int pid) {
    // Well into the frame loop: 60 frames of 1080p take the software rasteriser several seconds.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ::kill(pid, SIGTERM);
  };
  const auto cancelled = testing::run(launch);
  EXPECT_EQ(cancelled.status, 130) << cancelled.standardError;
  EXPECT_TRUE(cancelled.standardOutput.empty());
  EXPECT_EQ(readFile(film, 1 << 20), "an older film");
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(out_.path())) names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"film.mp4"});
}

TEST_F(ExportCommand, RefusesBadArgumentsAndUnknownProjectsBeforeAnyWork) {
  struct Row {
    std::string name;
    std::vector<std::string> arguments;
    int status;
    std::string code;
    std::string message;  // empty: not checked
  };
  const fs::path out = out_.path() / "film.mp4";
  testing::TemporaryDirectory elsewhere;
  const fs::path existing = elsewhere.path() / "existing.mp4";
  writeFileAtomically(existing, "a film");
  const Row rows[] = {
      {"no project", {"export"}, 2, "invalid_arguments", ""},
      {"unknown frame rate",
       {"export", id_, "--fps", "24"},
       2,
       "invalid_arguments",
       "参数无效：--fps 24（可选：source, 30, 60）"},
      {"unknown resolution", {"export", id_, "--resolution", "480p"}, 2, "invalid_arguments", ""},
      {"unknown codec", {"export", id_, "--codec", "vp9"}, 2, "invalid_arguments", ""},
      {"option without value", {"export", id_, "--quality"}, 2, "invalid_arguments", ""},
      {"unknown option", {"export", id_, "--speed", "2"}, 2, "invalid_arguments", ""},
      {"repeated option", {"export", id_, "--fps", "30", "--fps", "60"}, 2, "invalid_arguments", ""},
      {"two projects", {"export", id_, id_}, 2, "invalid_arguments", ""},
      {"unknown extension",
       {"export", id_, "--out", (out_.path() / "film.avi").string()},
       2,
       "invalid_arguments",
       "参数无效：--out必须为mp4/mov"},
      {"unknown project", {"export", "FFFFFFFF", "--out", out.string()}, 3, "project_not_found", ""},
      {"existing file, before the project is looked up",
       {"export", "FFFFFFFF", "--out", existing.string()},
       6,
       "execution",
       "输出已存在，使用--replace才能覆盖：" + existing.string()},
      {"missing folder", {"export", id_, "--out", (out_.path() / "missing" / "a.mp4").string()}, 6, "execution", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto result = vumo(row.arguments);
    EXPECT_EQ(result.status, row.status) << result.standardError;
    EXPECT_TRUE(result.standardOutput.empty());
    const Json envelope = Json::parse(result.standardError);
    EXPECT_EQ(envelope["error"], row.code);
    if (!row.message.empty()) {
      EXPECT_EQ(envelope["message"], row.message);
    }
  }
  EXPECT_TRUE(fs::is_empty(out_.path()));

  auto help = vumo({"export", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.standardOutput.rfind("usage: vumo export <id-prefix>", 0), 0u);
}

}  // namespace
}  // namespace vumo
