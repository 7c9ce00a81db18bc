// `frame` through the real executable on the generated sample recording (640×360): sizes, formats,
// replacing, and every way it refuses, each leaving nothing at the output.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "media/still_image.h"
#include "project/project_store.h"
#include "sample_project.h"
#include "sample_project_suite.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;

class FrameCommand : public testing::SampleProjectSuite {
 protected:
  static testing::ProcessResult frame(const std::string& id, std::int64_t milliseconds, const fs::path& out,
                                      std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"cli",   "frame",     id, "--ms", std::to_string(milliseconds),
                                          "--out", out.string()};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return vumo(arguments);
  }

  static void set(const std::string& assignment) { commitPreviewed({"cli", "set", id_, assignment}); }

  static StillImage picture(const fs::path& file) { return decodeStillImage(readFile(file, 64 << 20)); }

  testing::TemporaryDirectory out_;
};

TEST_F(FrameCommand, SizeFollowsTheCanvasAspectInEvenPixels) {
  struct Row {
    std::string aspect;
    std::int64_t width;
    int expectedWidth;
    int expectedHeight;
  };
  // 640 / (9/16) = 1137.8 and 640 / (3/4) = 853.3 round to the nearest even height.
  const Row rows[] = {{"16:9", 640, 640, 360}, {"1:1", 320, 320, 320}, {"9:16", 640, 640, 1138},
                      {"4:3", 641, 640, 480},  {"3:4", 640, 640, 854}, {"source", 322, 322, 182}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.aspect);
    set("canvas.aspect=" + row.aspect);
    const fs::path file = out_.path() / (row.aspect == "source" ? "source.png" : "aspect.png");
    auto result = frame(id_, 1000, file, {"--width", std::to_string(row.width), "--replace"});
    ASSERT_EQ(result.status, 0) << result.standardError;
    const Json answer = Json::parse(result.standardOutput);
    EXPECT_EQ(answer["outputPath"], file.string());
    EXPECT_EQ(answer["protocolVersion"], 1);
    EXPECT_EQ(answer["projectID"].get<std::string>().substr(0, 8), id_.substr(0, 8));
    const StillImage image = picture(file);
    EXPECT_EQ(image.width, row.expectedWidth);
    EXPECT_EQ(image.height, row.expectedHeight);
  }
  set("canvas.aspect=16:9");
}

TEST_F(FrameCommand, WritesJpegOrPngByExtensionAndReplacesOnlyWhenAsked) {
  const fs::path png = out_.path() / "shot.PNG";
  ASSERT_EQ(frame(id_, 500, png, {"--width", "320"}).status, 0);
  const std::string first = readFile(png, 64 << 20);
  EXPECT_EQ(first.substr(1, 3), "PNG");

  auto refused = frame(id_, 9000, png, {"--width", "320"});
  EXPECT_EQ(refused.status, 6);
  EXPECT_EQ(Json::parse(refused.standardError)["error"], "execution");
  EXPECT_EQ(readFile(png, 64 << 20), first);

  ASSERT_EQ(frame(id_, 9000, png, {"--width", "320", "--replace"}).status, 0);
  EXPECT_NE(readFile(png, 64 << 20), first);

  for (const char* name : {"shot.jpg", "shot.jpeg"}) {
    const fs::path jpeg = out_.path() / name;
    auto result = frame(id_, 500, jpeg, {"--width", "320"});
    ASSERT_EQ(result.status, 0) << result.standardError;
    const std::string bytes = readFile(jpeg, 64 << 20);
    EXPECT_EQ(static_cast<unsigned char>(bytes[0]), 0xFF);
    EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 0xD8);
    EXPECT_EQ(picture(jpeg).width, 320);
  }
}

TEST_F(FrameCommand, RefusesWhatItCannotDrawAndLeavesNothingBehind) {
  // A second project whose movie is damaged beyond reading.
  std::string movieless;
  {
    ProjectStore store;
    ProjectPackage package = makeSampleProject(store);
    movieless = store.readManifest(package).id.string();
    writeFileAtomically(package.mediaPath(), "not a movie at all");
  }
  { std::ofstream(out_.path() / "plain-file") << "not a folder"; }

  struct Row {
    std::string name;
    std::string project;
    std::int64_t milliseconds;
    fs::path out;
    int status;
    std::string code;
    std::string message;  // empty: not checked
  };
  const Row rows[] = {
      {"beyond the sequence", id_, 60'000, out_.path() / "late.png", 6, "execution",
       "A preview frame is temporarily unavailable at the requested time."},
      {"unreadable media", movieless, 1000, out_.path() / "movieless.png", 6, "execution", ""},
      {"parent is a regular file", id_, 1000, out_.path() / "plain-file" / "a.png", 6, "execution", ""},
      {"parent is missing", id_, 1000, out_.path() / "missing" / "a.png", 6, "execution",
       "输出目录不存在：" + (out_.path() / "missing").string()},
      {"unknown extension", id_, 1000, out_.path() / "a.gif", 2, "invalid_arguments",
       "参数无效：--out必须为jpg/jpeg/png"},
      {"unknown extension of an unknown project", "FFFFFFFF", 1000, out_.path() / "a.gif", 3, "project_not_found", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    auto result = frame(row.project, row.milliseconds, row.out);
    EXPECT_EQ(result.status, row.status) << result.standardError;
    EXPECT_TRUE(result.standardOutput.empty());
    const Json envelope = Json::parse(result.standardError);
    EXPECT_EQ(envelope["error"], row.code);
    if (!row.message.empty()) {
      EXPECT_EQ(envelope["message"], row.message);
    }
    EXPECT_FALSE(fs::exists(row.out));
  }
  // No temporary file of an atomic write was left either.
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(out_.path())) names.push_back(entry.path().filename().string());
  EXPECT_EQ(names, std::vector<std::string>{"plain-file"});
}

}  // namespace
}  // namespace vumo
