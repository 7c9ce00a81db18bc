// Stills of generated movies whose every frame names itself: the grey level of frame N is
// 16 + 5N in limited range, so the picture's centre says which source instant was drawn.

#include "rendering/project_frame_renderer.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>

#include "media_fixtures.h"
#include "rendering/rendering_context.h"
#include "rendering/rendering_errors.h"
#include "shared/resources.h"

namespace vumo {
namespace {

using namespace vumo::testing;

class ProjectFrames : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    cache_ = new TemporaryDirectory();
    cacheHome_ = new ScopedEnvironmentVariable("XDG_CACHE_HOME", cache_->path().string());
    renderer_ = new std::shared_ptr<ProjectFrameRenderer>(std::make_shared<ProjectFrameRenderer>(
        std::make_shared<SceneRenderer>(RenderingContext::create(VUMO_TEST_RESOURCE_DIR))));
  }
  static void TearDownTestSuite() {
    delete renderer_;
    delete cacheHome_;
    delete cache_;
  }

  // 64×36 grey pictures at 10 fps for 4 s, one level step per frame, as a lossless movie.
  ProjectSnapshot numberedProject() {
    PackageFixture fixture;
    fixture.inputs = lavfiInput("color=c=black:s=64x36:r=10:d=4,format=yuv420p,geq=lum=16+5*N:cb=128:cr=128");
    fixture.outputOptions = {"-c:v", "ffv1"};
    fixture.tracks = {{MediaTrackKind::screen, 0}};
    fixture.duration = ProjectTime::fromMilliseconds(4000);
    ProjectSnapshot snapshot = makePackage(folder_.path(), fixture);
    snapshot.manifest.encodedPixelSize = {64, 36};
    // Nothing but the recording: no margin, no corners, no pointer, no blur.
    snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::source;
    snapshot.timeline.canvas.padding = 0;
    snapshot.timeline.canvas.cornerRadius = 0;
    snapshot.timeline.cursor.isVisible = false;
    snapshot.timeline.cursor.showsClickEffect = false;
    snapshot.timeline.motionBlurAmount = 0;
    return snapshot;
  }

  static int frameNumberAtCentre(const StillImage& image) {
    const std::size_t centre = (static_cast<std::size_t>(image.height / 2) * image.width + image.width / 2) * 4;
    const double full = image.pixels[centre + 1];  // green carries luma alone for grey
    const double limited = full * 219.0 / 255.0 + 16.0;
    return static_cast<int>(std::lround((limited - 16.0) / 5.0));
  }

  static inline TemporaryDirectory* cache_ = nullptr;
  static inline ScopedEnvironmentVariable* cacheHome_ = nullptr;
  static inline std::shared_ptr<ProjectFrameRenderer>* renderer_ = nullptr;
  TemporaryDirectory folder_;
};

TEST_F(ProjectFrames, DrawTheSourceInstantTheMapperPicksAfterACutAndASpeedChange) {
  ProjectSnapshot snapshot = numberedProject();
  // Keep 0–1 s, cut 1–2 s, play 2–4 s at double speed.
  snapshot.timeline.segments = {clip(ms(0), ms(1000)), clip(ms(2000), ms(4000), 2000)};
  struct Row {
    std::int64_t sequenceMilliseconds;
    int sourceFrame;
  };
  const Row rows[] = {{0, 0}, {550, 5}, {999, 9}, {1000, 20}, {1250, 25}, {1500, 30}, {1990, 39}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.sequenceMilliseconds);
    const StillImage image =
        (*renderer_)->renderImage(snapshot, ProjectTime::fromMilliseconds(row.sequenceMilliseconds), 64, {});
    ASSERT_EQ(image.width, 64);
    ASSERT_EQ(image.height, 36);
    EXPECT_EQ(frameNumberAtCentre(image), row.sourceFrame);
  }
}

TEST_F(ProjectFrames, ATimeOutsideTheSequenceIsUnavailable) {
  ProjectSnapshot snapshot = numberedProject();
  snapshot.timeline.segments = {clip(ms(0), ms(1000))};
  for (const std::int64_t milliseconds : {1000, 5000}) {
    try {
      (*renderer_)->renderImage(snapshot, ProjectTime::fromMilliseconds(milliseconds), 64, {});
      ADD_FAILURE() << milliseconds << " ms rendered";
    } catch (const ProjectFrameRendererError& error) {
      EXPECT_EQ(error.kind(), ProjectFrameRendererError::Case::unavailable);
    }
  }
}

TEST_F(ProjectFrames, OutputSizeIsEvenAndFollowsTheCanvas) {
  ProjectSnapshot snapshot;
  snapshot.manifest.encodedPixelSize = {1001, 500};
  snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::source;
  EXPECT_EQ(ProjectFrameRenderer::outputSize(snapshot, 1001), (PixelSize{1000, 500}));
  snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::portrait9x16;
  EXPECT_EQ(ProjectFrameRenderer::outputSize(snapshot, 2), (PixelSize{2, 4}));
  // A manifest without a size takes 16:9 for `source`.
  snapshot.manifest.encodedPixelSize = {0, 0};
  snapshot.timeline.canvas.aspectRatio = CanvasAspectRatio::source;
  EXPECT_EQ(ProjectFrameRenderer::outputSize(snapshot, 1280), (PixelSize{1280, 720}));
}

}  // namespace
}  // namespace vumo
