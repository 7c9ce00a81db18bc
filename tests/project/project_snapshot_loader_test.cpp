// Loading a whole project at once.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stop_token>

#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "project/project_store.h"
#include "project_fixtures.h"
#include "shared/cancellation.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace project_testing;

TEST(ProjectStoreSnapshot, LoadsEveryPartOfAProject) {
  StoreFixture f;
  auto package = f.finishedProject();
  {
    ChunkStore<MouseEvent> events(package.mouseEventsDirectory(), 500, standardChunkMaximumSpan,
                                  [](const MouseEvent& e) { return e.time; });
    for (int i = 0; i < 1'200; ++i) {
      MouseEvent e;
      e.time = ProjectTime::fromMilliseconds(i);
      e.rawTimestampNanoseconds = static_cast<std::uint64_t>(i);
      events.append(e);
    }
    events.flush();
    ChunkStore<GeometrySample> geometry(package.geometryDirectory(), 500, standardChunkMaximumSpan,
                                        [](const GeometrySample& g) { return g.time; });
    geometry.append(GeometrySample{{0}, 1, {0, 0, 1920, 1080}, {1920, 1080}, {1920, 1080}, {0, 0, 1920, 1080}, 1});
    geometry.flush();
  }
  CursorAssetStore cursors(package.cursorAssetsDirectory());
  auto arrow = cursors.store("png-bytes", {16, 24}, {1, 1});
  {
    ChunkStore<CursorShapeSample> shapes(package.cursorEventsDirectory(), 500, standardChunkMaximumSpan,
                                         [](const CursorShapeSample& s) { return s.time; });
    shapes.append({{0}, arrow.id});
    shapes.flush();
  }
  std::string imageData = "jpeg-bytes";
  CanvasBackgroundImage image;
  image.id = sha256Hex(imageData);
  image.relativePath = "assets/backgrounds/" + image.id + ".jpg";
  image.pixelSize = {640, 480};
  f.store.writeCanvasBackgroundAsset({image, imageData}, package);
  EditTimeline timeline = timelineWithBlur(0.5);
  timeline.canvas.image = image;
  f.store.commitTimeline(timeline, f.store.timelineDigest(package), std::nullopt, package);
  f.store.commitCaptions(captionsWithCue("hi"), ProjectStore::zeroByteDigest, f.store.timelineDigest(package), package);

  ProjectSnapshot snapshot = f.store.loadSnapshot(package);
  EXPECT_EQ(snapshot.packagePath, package.rootPath);
  EXPECT_EQ(snapshot.manifest, f.store.readManifest(package));
  ASSERT_EQ(snapshot.mouseEvents.size(), 1'200u);
  EXPECT_EQ(snapshot.mouseEvents[1'199].rawTimestampNanoseconds, 1'199u);
  EXPECT_EQ(snapshot.geometry.size(), 1u);
  ASSERT_EQ(snapshot.cursorShapeSamples.size(), 1u);
  EXPECT_EQ(snapshot.cursorShapeSamples[0].assetID, arrow.id);
  ASSERT_EQ(snapshot.cursorAssets.size(), 1u);
  EXPECT_EQ(snapshot.cursorAssets[0].descriptor, arrow);
  EXPECT_EQ(snapshot.cursorAssets[0].pngData, "png-bytes");
  EXPECT_EQ(snapshot.timeline, f.store.readTimeline(package, tenSeconds, false));
  EXPECT_EQ(snapshot.timelineDigest, sha256Hex(readFile(package.timelinePath(), SIZE_MAX)));
  EXPECT_EQ(snapshot.captionsDigest, sha256Hex(readFile(package.captionsPath(), SIZE_MAX)));
  ASSERT_TRUE(snapshot.captions.has_value());
  EXPECT_EQ(snapshot.captions->cues[0].text, "hi");
  ASSERT_EQ(snapshot.canvasBackgroundAssets.size(), 1u);
  EXPECT_EQ(snapshot.canvasBackgroundAssets[0].imageData, imageData);
}

TEST(ProjectStoreSnapshot, ReadingNeverWritesAndAnyBrokenPartFailsTheLoad) {
  StoreFixture f;
  auto package = f.finishedProject();
  // An old schema and no clips: normalised in memory, the file stays as it is.
  writeFileAtomically(package.timelinePath(), documentAtSchema(3));
  std::string digest = f.store.timelineDigest(package);
  auto snapshot = f.store.loadSnapshot(package);
  EXPECT_EQ(snapshot.timeline.schemaVersion, EditTimeline::currentSchemaVersion);
  EXPECT_EQ(f.store.timelineDigest(package), digest);
  EXPECT_FALSE(fs::exists(package.preSchema8TimelineBackupPath()));

  struct Case {
    const char* name;
    std::function<void()> damage;
    std::function<void()> repair;
  };
  const Case cases[] = {
      {"chunk", [&] { writeFileAtomically(package.mouseEventsDirectory() / "000000.json", "[{]"); },
       [&] { fs::remove(package.mouseEventsDirectory() / "000000.json"); }},
      {"timeline", [&] { writeFileAtomically(package.timelinePath(), "[]"); },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
      {"invalid timeline",
       [&] {
         writeFileAtomically(package.timelinePath(),
                             encodeEditTimeline(timelineWithBlur(0.5, ProjectTime::fromMilliseconds(20'000))));
       },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
      {"captions", [&] { writeFileAtomically(package.captionsPath(), "{}"); },
       [&] { fs::remove(package.captionsPath()); }},
      {"canvas outside the package",
       [&] {
         EditTimeline t = timelineWithBlur(0.5);
         CanvasBackgroundImage image;
         image.id = "x";
         image.relativePath = "assets/backgrounds/../../../manifest.json";
         t.canvas.image = image;
         writeFileAtomically(package.timelinePath(), encodeEditTimeline(t));
       },
       [&] { writeFileAtomically(package.timelinePath(), documentAtSchema(8)); }},
  };
  for (const auto& c : cases) {
    c.damage();
    EXPECT_ANY_THROW(f.store.loadSnapshot(package)) << c.name;
    c.repair();
    EXPECT_NO_THROW(f.store.loadSnapshot(package)) << c.name;
  }
}

TEST(ProjectStoreSnapshot, WithoutEditDocumentsTheDigestsAreOfZeroBytes) {
  StoreFixture f;
  auto package = f.finishedProject();
  fs::remove(package.timelinePath());
  auto snapshot = f.store.loadSnapshot(package);
  EXPECT_EQ(snapshot.timelineDigest, ProjectStore::zeroByteDigest);
  EXPECT_EQ(snapshot.captionsDigest, ProjectStore::zeroByteDigest);
  EXPECT_FALSE(snapshot.captions.has_value());
}

TEST(ProjectStoreSnapshot, AChunkThatIsNoRegularFileOrTooLargeFailsTheLoadWithoutBlocking) {
  StoreFixture f;
  auto package = f.finishedProject();
  const fs::path chunk = package.mouseEventsDirectory() / "000000.json";
  struct Case {
    const char* name;
    std::function<void()> plant;
  };
  const Case cases[] = {
      {"fifo", [&] { ASSERT_EQ(::mkfifo(chunk.c_str(), 0600), 0); }},
      {"oversize",
       [&] {
         writeFileAtomically(chunk, "[]");
         fs::resize_file(chunk, documentLimits::chunkBytes + 1);
       }},
      {"link", [&] { fs::create_symlink(package.manifestPath(), chunk); }},
  };
  for (const auto& c : cases) {
    c.plant();
    EXPECT_TRUE(finishesWithin(std::chrono::seconds(20), [&] { f.store.loadSnapshot(package); })) << c.name;
    EXPECT_THROW(f.store.loadSnapshot(package), FileError) << c.name;
    fs::remove(chunk);
    EXPECT_NO_THROW(f.store.loadSnapshot(package)) << c.name;
  }
}

TEST(ProjectStoreSnapshot, AStopRequestEndsReadsBeforeTheyDecode) {
  StoreFixture f;
  auto package = f.finishedProject();
  f.store.commitCaptions(captionsWithCue("hi"), ProjectStore::zeroByteDigest, f.store.timelineDigest(package), package);
  {
    ChunkStore<MouseEvent> events(package.mouseEventsDirectory(), 500, standardChunkMaximumSpan,
                                  [](const MouseEvent& e) { return e.time; });
    events.append(MouseEvent{});
    events.flush();
  }
  std::stop_source stop;
  stop.request_stop();
  ProjectStore stopped(f.store.projectsDirectoryPath(), stop.get_token());
  struct Case {
    const char* name;
    std::function<void()> read;
  };
  const Case cases[] = {
      {"snapshot", [&] { stopped.loadSnapshot(package); }},
      {"timeline", [&] { stopped.readTimelineState(package, tenSeconds, false); }},
      {"captions", [&] { stopped.captionsState(package); }},
      {"history",
       [&] {
         f.store.commitTimeline(timelineWithBlur(0.1), f.store.timelineDigest(package), std::nullopt, package);
         stopped.historyTimeline(0, package, tenSeconds, false);
       }},
  };
  for (const auto& c : cases) EXPECT_THROW(c.read(), CancelledError) << c.name;
  // A digest alone decodes nothing and is always answered.
  EXPECT_EQ(stopped.timelineDigest(package), f.store.timelineDigest(package));
}

}  // namespace
}  // namespace vumo
