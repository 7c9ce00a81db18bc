// The watcher and the reload on real folders: the reader thread posts into the hand-turned loop,
// and the debounce runs on the loop's clock, moved by hand.

#include "editor/project_timeline_watcher.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "captions/caption_fixtures.h"
#include "editor/external_edit_reloader.h"
#include "loop_waiting.h"
#include "sample_project.h"
#include "shared/digest.h"
#include "shared/files.h"
#include "support/manual_main_loop.h"
#include "support/test_support.h"

namespace vumo {
namespace {

using namespace std::chrono_literals;
using testing::ms;

std::size_t openDescriptorCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

const ProjectTime kDuration = ms(10'000);

std::string timelineText(std::int64_t motionBlurPercent = 50) {
  EditTimeline timeline = EditTimeline::empty().normalized(kDuration, false);
  timeline.motionBlurAmount = static_cast<double>(motionBlurPercent) / 100;
  return encodeEditTimeline(timeline);
}

// An edits folder being watched, with the loop the reader posts into.
class WatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::filesystem::create_directories(edits());
    watcher_.start(edits(), [this] { ++reloads_; });
  }
  std::filesystem::path edits() const { return folder_.path() / "package.vumo" / "edits"; }
  // How the store replaces a document: a hidden temporary, then a rename over the name.
  void writeTimeline() { writeFileAtomically(edits() / "timeline.json", timelineText()); }
  void waitForEvent() { ASSERT_GT(testing::turnUntilPosted(loop_), 0) << "no event reached the loop"; }

  testing::TemporaryDirectory folder_;
  testing::ManualMainLoop loop_;
  ProjectTimelineWatcher watcher_{loop_};
  int reloads_ = 0;
};

TEST_F(WatcherTest, AnAtomicWriteReloadsOnceFiftyMillisecondsAfterItsEvent) {
  writeTimeline();
  waitForEvent();
  loop_.advance(49ms);
  EXPECT_EQ(reloads_, 0);
  loop_.advance(1ms);
  EXPECT_EQ(reloads_, 1);
  loop_.advance(1s);
  EXPECT_EQ(reloads_, 1);
}

TEST_F(WatcherTest, TenWritesGiveOneReload) {
  // Ten writes 4 ms apart on the loop's clock, each event handled before the next write.
  for (int write = 0; write < 10; ++write) {
    writeTimeline();
    waitForEvent();
    loop_.advance(4ms);
  }
  EXPECT_EQ(reloads_, 0);
  loop_.advance(50ms);
  EXPECT_EQ(reloads_, 1);

  // Ten writes at once, however the reader happens to split them.
  for (int write = 0; write < 10; ++write) writeFileAtomically(edits() / "captions.json", "{}");
  waitForEvent();
  loop_.advance(50ms);
  EXPECT_EQ(reloads_, 2);
}

TEST_F(WatcherTest, AWriteDuringTheDebounceStartsItAgain) {
  writeTimeline();
  waitForEvent();
  loop_.advance(30ms);
  writeTimeline();
  waitForEvent();
  loop_.advance(30ms);
  EXPECT_EQ(reloads_, 0);
  loop_.advance(20ms);
  EXPECT_EQ(reloads_, 1);
}

TEST_F(WatcherTest, StopDuringTheDebounceGivesNoReload) {
  writeTimeline();
  waitForEvent();
  loop_.advance(20ms);
  watcher_.stop();
  EXPECT_EQ(loop_.pendingTimers(), 0u);
  loop_.advance(1s);
  EXPECT_EQ(reloads_, 0);
  EXPECT_EQ(watcher_.descriptor(), -1);
}

TEST_F(WatcherTest, TemporariesHistoryAndLockFilesAloneGiveNoEvent) {
  // What a commit does besides replacing a document.
  std::ofstream(edits() / ".timeline.json.0a1b2c3d") << "partial";
  std::filesystem::rename(edits() / ".timeline.json.0a1b2c3d", edits() / ".timeline.json.99999999");
  std::filesystem::remove(edits() / ".timeline.json.99999999");
  ::close(::open((edits() / ".timeline.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ::close(::open((edits() / ".captions.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  std::filesystem::create_directories(edits() / "history");
  writeFileAtomically(edits() / "history" / "timeline-1.json", timelineText());
  writeFileAtomically(edits() / "timeline.json.bak", "{}");
  // Then one write that counts. Events arrive in order, so when its work reaches the loop every
  // earlier event has been read: had any of them counted, more than one piece of work would run.
  writeTimeline();
  int ran = testing::turnUntilPosted(loop_);
  ran += loop_.runUntilIdle();
  EXPECT_EQ(ran, 1);
  loop_.advance(50ms);
  EXPECT_EQ(reloads_, 1);
}

TEST_F(WatcherTest, StartingTwiceKeepsOneWatchAndClosesTheFirstDescriptors) {
  watcher_.stop();
  const std::size_t before = openDescriptorCount();
  watcher_.start(edits(), [this] { ++reloads_; });
  const std::size_t watching = openDescriptorCount();
  EXPECT_GT(watching, before);
  watcher_.start(edits(), [this] { reloads_ += 10; });
  EXPECT_EQ(openDescriptorCount(), watching);
  EXPECT_GE(watcher_.descriptor(), 0);

  writeTimeline();
  waitForEvent();
  loop_.advance(50ms);
  EXPECT_EQ(reloads_, 10) << "only the second watch acts";
  watcher_.stop();
  EXPECT_EQ(openDescriptorCount(), before);
}

TEST(WatcherStartTest, AFolderThatCannotBeWatchedIsTheWatcherError) {
  testing::TemporaryDirectory folder;
  std::ofstream(folder.path() / "file") << "not a folder";
  testing::ManualMainLoop loop;
  ProjectTimelineWatcher watcher(loop);
  for (const auto& path : {folder.path() / "missing", folder.path() / "file"}) {
    try {
      watcher.start(path, [] {});
      ADD_FAILURE() << path << " was watched";
    } catch (const ProjectTimelineWatcherError& error) {
      EXPECT_EQ(error.message(), "The project editing folder could not be monitored.");
      EXPECT_EQ(error.localizationKey(), "editor.external.watchDirectory");
      EXPECT_EQ(error.table(), "Editor");
      EXPECT_EQ(error.classification().code, "execution");
    }
    EXPECT_EQ(watcher.descriptor(), -1);
  }

  // The editor carries on without the watch and says so.
  std::vector<std::string> errors;
  ExternalEditReloader reloader(ProjectPackage{folder.path() / "gone.vumo"}, kDuration, false,
                                {.reportError = [&](std::string message) { errors.push_back(message); }});
  EXPECT_FALSE(reloader.startWatching(watcher));
  EXPECT_EQ(errors,
            (std::vector<std::string>{
                "Monitoring external edits is unavailable: The project editing folder could not be monitored."}));
}

// ---- The reload ------------------------------------------------------------------------------

struct ReloadFixture {
  testing::TemporaryDirectory folder;
  ProjectPackage package{folder.path() / "package.vumo"};
  std::vector<EditTimeline> timelines;
  std::vector<std::string> errors;
  std::vector<std::pair<CaptionDocument, std::string>> opened;
  std::unique_ptr<CaptionEditingSession> session;
  ExternalEditReloader reloader{
      package, kDuration, false,
      ExternalEditReloader::Targets{
          .applyTimeline = [this](const EditTimeline& timeline) { timelines.push_back(timeline); },
          .captionSession = [this] { return session.get(); },
          .openCaptionSession = [this](const CaptionDocument& document,
                                       const std::string& digest) { opened.emplace_back(document, digest); },
          .captionSaves = nullptr,
          .reportError = [this](std::string message) { errors.push_back(message); }}};

  ReloadFixture() { std::filesystem::create_directories(package.editsDirectory()); }
};

CaptionDocument oneCue(std::string text) {
  return testing::makeDocument({testing::makeCue(1, 1000, 2000, std::move(text))}).validated(kDuration);
}

TEST(ExternalEditReloaderTest, HandsTheTimelineOnAndMakesACaptionSessionWhenNoneIsOpen) {
  ReloadFixture f;
  writeFileAtomically(f.package.timelinePath(), timelineText(20));
  f.reloader.reload();
  ASSERT_EQ(f.timelines.size(), 1u);
  EXPECT_EQ(f.timelines[0].motionBlurAmount, 0.2);
  EXPECT_TRUE(f.opened.empty()) << "no captions file, no caption session";

  const std::string captions = encodeCaptionDocument(oneCue("first"));
  writeFileAtomically(f.package.captionsPath(), captions);
  f.reloader.reload();
  ASSERT_EQ(f.opened.size(), 1u);
  EXPECT_EQ(f.opened[0].first, oneCue("first"));
  EXPECT_EQ(f.opened[0].second, sha256Hex(captions));

  // With a session open, the document goes to it as an external change.
  f.session =
      std::make_unique<CaptionEditingSession>(oneCue("first"), kDuration, [](const CaptionDocument&, bool, bool) {});
  writeFileAtomically(f.package.captionsPath(), encodeCaptionDocument(oneCue("second")));
  f.reloader.reload();
  EXPECT_EQ(f.session->document(), oneCue("second"));
  EXPECT_EQ(*f.session->message(), "External captions loaded. Press Ctrl+Z to undo.");
  EXPECT_EQ(f.opened.size(), 1u);
  EXPECT_TRUE(f.errors.empty());
}

TEST(ExternalEditReloaderTest, AnUnreadableDocumentIsALoadErrorAndNothingIsHandedOn) {
  struct Case {
    const char* name;
    std::optional<std::string> timeline;  // none: no file
    std::optional<std::string> captions;
    std::string expectedStart;
  };
  const std::vector<Case> cases{
      {"missing timeline", std::nullopt, std::nullopt, "External edits could not be loaded: "},
      {"malformed timeline", "{\"schemaVersion\": ", std::nullopt, "External edits could not be loaded: "},
      {"malformed captions", timelineText(), "[1, 2]", "External edits could not be loaded: "},
  };
  for (const auto& c : cases) {
    ReloadFixture f;
    if (c.timeline) writeFileAtomically(f.package.timelinePath(), *c.timeline);
    if (c.captions) writeFileAtomically(f.package.captionsPath(), *c.captions);
    f.reloader.reload();
    ASSERT_EQ(f.errors.size(), 1u) << c.name;
    EXPECT_EQ(f.errors[0].rfind(c.expectedStart, 0), 0u) << c.name << ": " << f.errors[0];
    EXPECT_GT(f.errors[0].size(), c.expectedStart.size()) << c.name << ": the error's own text follows";
    EXPECT_TRUE(f.timelines.empty()) << c.name;
    EXPECT_TRUE(f.opened.empty()) << c.name;
  }
}

TEST_F(WatcherTest, RemovingTheFolderIsAnEventAndThenALoadError) {
  watcher_.stop();
  std::vector<std::string> errors;
  int timelines = 0;
  ExternalEditReloader reloader(ProjectPackage{edits().parent_path()}, kDuration, false,
                                {.applyTimeline = [&](const EditTimeline&) { ++timelines; },
                                 .reportError = [&](std::string message) { errors.push_back(message); }});
  writeTimeline();
  ASSERT_TRUE(reloader.startWatching(watcher_));
  std::filesystem::remove_all(edits());
  waitForEvent();
  loop_.advance(50ms);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].rfind("External edits could not be loaded: ", 0), 0u) << errors[0];
  EXPECT_NE(errors[0].find("timeline.json"), std::string::npos) << errors[0];
  EXPECT_EQ(timelines, 0);
}

// The agent's command line commits a cut from another process while the editor watches.
TEST(ExternalEditEndToEndTest, ACutCommittedByTheCommandLineReachesTheTimelineOnce) {
  testing::ScopedDataHome home;
  ProjectStore store;
  const ProjectPackage package = makeSampleProject(store);
  const ProjectManifest manifest = store.readManifest(package);

  testing::ManualMainLoop loop;
  ProjectTimelineWatcher watcher(loop);
  std::vector<EditTimeline> delivered;
  std::vector<std::string> errors;
  ExternalEditReloader reloader(package, manifest.duration, manifest.webcam.has_value(),
                                {.applyTimeline = [&](const EditTimeline& timeline) { delivered.push_back(timeline); },
                                 .reportError = [&](std::string message) { errors.push_back(message); }});
  ASSERT_TRUE(reloader.startWatching(watcher));

  const auto result = testing::runVumo({"cli", "cut", manifest.id.string(), "--range", "1000,2500", "--apply",
                                        "--expect", store.timelineDigest(package)},
                                       {{"XDG_DATA_HOME", home.path().string()}});
  ASSERT_EQ(result.status, 0) << result.standardError;
  ASSERT_GT(testing::turnUntilPosted(loop), 0) << "the commit was not seen";
  loop.advance(50ms);
  loop.advance(1s);

  EXPECT_TRUE(errors.empty()) << errors.front();
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(encodeEditTimeline(delivered[0]), readFile(package.timelinePath(), SIZE_MAX));
  EXPECT_EQ(delivered[0].segments.size(), 2u) << "the cut split the one clip in two";
}

}  // namespace
}  // namespace vumo
