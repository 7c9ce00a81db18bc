#include <gtest/gtest.h>

#include <random>

#include "support/builders.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_validator.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// Builds random timelines that the validator accepts, touching every field and optional.
class RandomTimelines {
 public:
  explicit RandomTimelines(std::uint64_t seed) : random_(seed) {}

  static constexpr std::int64_t sourceNs = 120'000'000'000;

  EditTimeline next() {
    EditTimeline t = EditTimeline::empty();
    t.motionBlurAmount = unit();
    t.canvas.aspectRatio = static_cast<CanvasAspectRatio>(integer(0, 5));
    t.canvas.background = chance() ? CanvasBackground::solid : CanvasBackground::gradient;
    t.canvas.preset = static_cast<CanvasBackgroundPreset>(integer(0, 23));
    t.canvas.padding = real(0, 0.18);
    t.canvas.cornerRadius = real(0, 0.08);
    if (chance()) {
      CanvasBackgroundImage image;
      image.id = words();
      image.relativePath = "backgrounds/" + words() + ".png";
      image.pixelSize = {integer(1, 8000), integer(1, 8000)};
      image.source = static_cast<CanvasBackgroundImageSource>(integer(0, 2));
      if (chance()) image.selectionID = words();
      image.mediaKind = chance() ? CanvasBackgroundMediaKind::video : CanvasBackgroundMediaKind::image;
      if (chance()) image.duration = real(0, 600);
      t.canvas.image = image;
    }
    t.cursor = {chance(), real(0.5, 3), chance(), static_cast<ClickEffectStyle>(integer(0, 2))};
    t.audioMix = {{chance(), real(-60, 12)}, {chance(), real(-60, 12)}};
    if (chance()) {
      const auto& devices = DeviceFrameCatalog::bundled().devices;
      const auto& device = devices[static_cast<std::size_t>(integer(0, static_cast<std::int64_t>(devices.size()) - 1))];
      t.deviceFrame = DeviceFrameEdit{chance(), device.variants.front().id,
                                      chance() ? DeviceFrameContentMode::fill : DeviceFrameContentMode::fit};
    }
    addSegments(t);
    if (chance()) addCamera(t);
    addZooms(t);
    addAnnotations(t);
    return t;
  }

 private:
  std::int64_t integer(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(random_);
  }
  double real(double low, double high) { return std::uniform_real_distribution<double>(low, high)(random_); }
  double unit() { return real(0, 1); }
  bool chance() { return integer(0, 1) == 1; }
  std::string words() {
    static const char* const pieces[] = {"a", "Z", "中文", "\"", "\\", "/", "\n", "\t", "😀", "é", " ", "\x01", "}"};
    std::string s;
    for (std::int64_t i = integer(0, 12); i > 0; --i) s += pieces[integer(0, 12)];
    return s;
  }

  void addSegments(EditTimeline& t) {
    std::int64_t cursor = integer(0, 2'000'000'000);
    for (std::int64_t n = integer(1, 12); n > 0; --n) {
      std::int64_t length = integer(70'000'000, 8'000'000'000);
      if (cursor + length > sourceNs) break;
      t.segments.push_back(
          clip(ns(cursor), ns(cursor + length), static_cast<std::int32_t>(500 + 10 * integer(0, 350))));
      cursor += length + (chance() ? 0 : integer(1, 3'000'000'000));
    }
    if (t.segments.empty()) t.segments.push_back(clip(ns(0), ns(sourceNs)));
  }

  void addCamera(EditTimeline& t) {
    WebcamOverlay overlay;
    overlay.isVisible = chance();
    overlay.center = {unit(), unit()};
    overlay.diameter = real(0.1, 0.4);
    overlay.isMirrored = chance();
    overlay.aspectRatio = chance() ? WebcamAspectRatio::source : WebcamAspectRatio::square;
    overlay.cornerRadius = unit();
    overlay.showsBorder = chance();
    overlay.borderWidthAt1080p = real(2, 20);
    overlay.showsShadow = chance();
    t.webcamOverlay = overlay;
    std::int64_t time = 0;
    for (std::int64_t n = integer(0, 6); n > 0; --n) {
      time += integer(1, 10'000'000'000);
      if (time >= sourceNs) break;
      t.webcamKeyframes.push_back({Uuid::random(), ns(time), {unit(), unit()}, real(0.1, 0.4)});
    }
    std::int64_t start = 0;
    for (std::int64_t n = integer(0, 4); n > 0; --n) {
      start += integer(0, 10'000'000'000);
      std::int64_t end = start + integer(33'333'333, 5'000'000'000);
      if (end > sourceNs) break;
      t.webcamFullscreenSegments.push_back({Uuid::random(), ns(start), ns(end)});
      start = end;
    }
  }

  void addZooms(EditTimeline& t) {
    std::int64_t start = 0;
    for (std::int64_t n = integer(0, 8); n > 0; --n) {
      start += integer(0, 5'000'000'000);
      std::int64_t end = start + integer(16'666'666, 6'000'000'000);
      if (end > sourceNs) break;
      std::int64_t focus = integer(start, end);
      std::int64_t hold = integer(focus, end);
      double scale = chance() ? 1.0 : real(1, 3);
      PointValue point = TimelineEffectEngine::constrainedFocus({unit(), unit()}, scale);
      t.zooms.push_back({Uuid::random(), ns(start), ns(focus), ns(hold), ns(end), point, scale});
      start = end;
    }
  }

  void addAnnotations(EditTimeline& t) {
    for (std::int64_t n = integer(0, 16), z = 0; n > 0; --n, z += integer(1, 3)) {
      std::int64_t start = integer(0, sourceNs - 16'666'666);
      std::int64_t end = integer(start + 16'666'666, sourceNs);
      AnnotationElement a;
      switch (integer(0, 4)) {
        case 0: a = arrow(ns(start), ns(end), z); break;
        case 1: a = vumo::testing::text(ns(start), ns(end), z, words()); break;
        default:
          a = rectangle(ns(start), ns(end), z);
          a.kind = static_cast<AnnotationKind>(integer(0, 1) * 3);
          break;
      }
      if (a.kind == AnnotationKind::text) {
        a.textStyle->fontSize = real(12, 240);
        a.textStyle->hasOutline = chance();
        a.textStyle->outlineColor = chance() ? TextAnnotationOutlineColor::white : TextAnnotationOutlineColor::black;
      }
      if (a.bounds) {
        double x = real(0, 0.9), y = real(0, 0.9);
        a.bounds = RectValue{x, y, real(0.02, 1 - x), real(0.02, 1 - y)};
        if (a.bounds->x + a.bounds->width > 1 || a.bounds->y + a.bounds->height > 1)
          a.bounds = RectValue{0, 0, 0.5, 0.5};
      } else {
        a.startPoint = PointValue{real(0, 0.4), unit()};
        a.endPoint = PointValue{real(0.6, 1), unit()};
      }
      a.color = {unit(), unit(), unit()};
      a.lineWidth = real(0.001, 0.05);
      a.cornerRadius = unit();
      a.locksAspectRatio = chance();
      a.isFilled = chance();
      a.dimsOutside = chance();
      a.trackIndex = integer(0, 20);
      t.annotations.push_back(a);
    }
  }

  std::mt19937_64 random_;
};

TEST(EditTimelineRoundTrip, DecodingTheEncodingOfAValidTimelineGivesItBack) {
  RandomTimelines generator(0x7C0AE);
  for (int i = 0; i < 400; ++i) {
    EditTimeline timeline = generator.next();
    ASSERT_NO_THROW(TimelineValidator::validate(timeline, ns(RandomTimelines::sourceNs))) << "case " << i;
    std::string encoded = encodeEditTimeline(timeline);
    EditTimeline decoded = decodeEditTimeline(encoded);
    ASSERT_EQ(decoded, timeline) << "case " << i << "\n" << encoded;
    // Writing again gives the same bytes: documents are stable under read and write.
    ASSERT_EQ(encodeEditTimeline(decoded), encoded) << "case " << i;
  }
}

TEST(EditTimelineRoundTrip, NormalizingAValidCurrentTimelineOnlySortsAndReflows) {
  RandomTimelines generator(42);
  for (int i = 0; i < 200; ++i) {
    EditTimeline timeline = generator.next();
    EditTimeline normal = timeline.normalized(ns(RandomTimelines::sourceNs), timeline.webcamOverlay.has_value());
    ASSERT_NO_THROW(TimelineValidator::validate(normal, ns(RandomTimelines::sourceNs))) << "case " << i;
    ASSERT_EQ(normal.segments, timeline.segments) << "case " << i;
    ASSERT_EQ(normal.zooms, timeline.zooms) << "case " << i;
    ASSERT_EQ(normal.annotations.size(), timeline.annotations.size()) << "case " << i;
    ASSERT_EQ(normal.normalized(ns(RandomTimelines::sourceNs), timeline.webcamOverlay.has_value()), normal)
        << "case " << i;
  }
}

}  // namespace
}  // namespace vumo
