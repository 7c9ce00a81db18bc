#include "export/export_configuration.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "shared/json.h"

namespace vumo {
namespace {

using Resolution = ExportResolution;
using Aspect = CanvasAspectRatio;

ExportConfiguration at(ExportResolution resolution) {
  ExportConfiguration configuration;
  configuration.resolution = resolution;
  return configuration;
}

TEST(ExportOutputSizeTest, FixedCanvasesPutTheShortEdgeOnTheShorterSide) {
  struct Case {
    Resolution resolution;
    Aspect aspect;
    PixelSize expected;
  };
  // width = e × r and height = e where r ≥ 1; width = e and height = e ÷ r otherwise.
  const std::vector<Case> cases = {
      {Resolution::p720, Aspect::square, {720, 720}},
      {Resolution::p720, Aspect::landscape16x9, {1280, 720}},
      {Resolution::p720, Aspect::portrait9x16, {720, 1280}},
      {Resolution::p720, Aspect::portrait4x3, {960, 720}},
      {Resolution::p720, Aspect::portrait3x4, {720, 960}},
      {Resolution::p1080, Aspect::square, {1080, 1080}},
      {Resolution::p1080, Aspect::landscape16x9, {1920, 1080}},
      {Resolution::p1080, Aspect::portrait9x16, {1080, 1920}},
      {Resolution::p1080, Aspect::portrait4x3, {1440, 1080}},
      {Resolution::p1080, Aspect::portrait3x4, {1080, 1440}},
      {Resolution::p1440, Aspect::square, {1440, 1440}},
      {Resolution::p1440, Aspect::landscape16x9, {2560, 1440}},
      {Resolution::p1440, Aspect::portrait9x16, {1440, 2560}},
      {Resolution::p1440, Aspect::portrait4x3, {1920, 1440}},
      {Resolution::p1440, Aspect::portrait3x4, {1440, 1920}},
      {Resolution::p2160, Aspect::square, {2160, 2160}},
      {Resolution::p2160, Aspect::landscape16x9, {3840, 2160}},
      {Resolution::p2160, Aspect::portrait9x16, {2160, 3840}},
      {Resolution::p2160, Aspect::portrait4x3, {2880, 2160}},
      {Resolution::p2160, Aspect::portrait3x4, {2160, 2880}},
  };
  // The source's own shape plays no part once the canvas has one.
  for (PixelSize source : {PixelSize{1920, 1080}, PixelSize{1001, 3333}}) {
    for (const auto& c : cases) {
      SCOPED_TRACE(std::string(nameOf(c.resolution)) + " " + std::string(nameOf(c.aspect)));
      EXPECT_EQ(at(c.resolution).resolvedOutputSize(source, c.aspect), c.expected);
    }
  }
}

TEST(ExportOutputSizeTest, SourceCanvasFollowsTheSourceShapeWithEvenSides) {
  struct Case {
    std::string name;
    Resolution resolution;
    PixelSize source;
    PixelSize expected;
  };
  const std::vector<Case> cases = {
      {"square source", Resolution::p1080, {1000, 1000}, {1080, 1080}},
      {"16:9 source", Resolution::p2160, {1280, 720}, {3840, 2160}},
      // 2880 ÷ 1800 = 1.6; 720 × 1.6 = 1152.
      {"16:10 source", Resolution::p720, {2880, 1800}, {1152, 720}},
      // 720 × 2551 ÷ 1440 = 1275.5: truncated to 1275, then the odd bit dropped.
      {"odd landscape width", Resolution::p720, {2551, 1440}, {1274, 720}},
      {"odd portrait height", Resolution::p720, {1440, 2551}, {720, 1274}},
      // 1080 × 1366 ÷ 768 = 1920.9375.
      {"laptop panel", Resolution::p1080, {1366, 768}, {1920, 1080}},
      {"source without area", Resolution::p720, {0, 0}, {720, 720}},
      {"original keeps odd sides", Resolution::original, {1921, 1081}, {1921, 1081}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(at(c.resolution).resolvedOutputSize(c.source, Aspect::source), c.expected);
  }
}

TEST(ExportConfigurationTest, OriginalResolutionNeedsTheSourceCanvas) {
  for (Aspect aspect :
       {Aspect::square, Aspect::landscape16x9, Aspect::portrait9x16, Aspect::portrait4x3, Aspect::portrait3x4}) {
    SCOPED_TRACE(std::string(nameOf(aspect)));
    try {
      at(Resolution::original).resolved({1920, 1080}, aspect);
      FAIL() << "resolved";
    } catch (const ExportConfigurationError& error) {
      EXPECT_EQ(error.kind(), ExportConfigurationError::Case::originalResolutionRequiresSourceAspect);
      EXPECT_EQ(error.localizationKey(), "export.error.originalRequiresSource");
      EXPECT_STREQ(error.what(), "Original resolution requires the source aspect ratio.");
      EXPECT_EQ(error.classification().kind, ErrorKind::validation);
    }
  }
  auto resolved = at(Resolution::original).resolved({1921, 1081}, Aspect::source);
  EXPECT_EQ(resolved.outputSize, (PixelSize{1921, 1081}));
}

TEST(ExportConfigurationTest, ResolvesSizeRateAndBitRateTogether) {
  struct Case {
    std::string name;
    ExportConfiguration configuration;
    PixelSize source;
    Aspect aspect;
    ResolvedExportConfiguration expected;
  };
  using Q = ExportQuality;
  using C = ExportCodec;
  const std::vector<Case> cases = {
      {"default", {}, {2880, 1800}, Aspect::landscape16x9, {{1920, 1080}, 60, 12'000'000, Q::standard, C::h264}},
      // The source's own rate is not known here: 60, and no reduction of the bit rate.
      {"source frame rate",
       {Resolution::p1080, ExportFrameRate::source, Q::standard, C::h264},
       {1920, 1080},
       Aspect::source,
       {{1920, 1080}, 60, 12'000'000, Q::standard, C::h264}},
      {"30 fps",
       {Resolution::p1080, ExportFrameRate::fps30, Q::standard, C::h264},
       {1920, 1080},
       Aspect::source,
       {{1920, 1080}, 30, 7'800'000, Q::standard, C::h264}},
      // 1152 × 720 lies below the first point: 6,000,000 × 0.65 × 0.65 = 2,535,000, clamped.
      {"compact preset",
       exportPresetConfiguration(ExportPreset::compact),
       {2880, 1800},
       Aspect::source,
       {{1152, 720}, 30, 3'000'000, Q::compact, C::h264}},
      {"high quality preset, portrait",
       exportPresetConfiguration(ExportPreset::highQuality),
       {1920, 1080},
       Aspect::portrait9x16,
       {{2160, 3840}, 60, 75'000'000, Q::high, C::h264}},
      // 3,686,400 pixels: 24,000,000 × 0.65.
      {"hevc",
       {Resolution::p1440, ExportFrameRate::fps60, Q::standard, C::hevc},
       {1920, 1080},
       Aspect::source,
       {{2560, 1440}, 60, 15'600'000, Q::standard, C::hevc}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.configuration.resolved(c.source, c.aspect), c.expected);
  }
}

TEST(ExportBitRateTest, InterpolatesBetweenThePointsAndScales) {
  struct Case {
    PixelSize size;
    std::int32_t framesPerSecond;
    ExportQuality quality;
    ExportCodec codec;
    std::int64_t expected;
  };
  using Q = ExportQuality;
  using C = ExportCodec;
  const std::vector<Case> cases = {
      // Flat below 921,600 and above 8,294,400 pixels, exact at the points.
      {{640, 480}, 60, Q::standard, C::h264, 6'000'000},
      {{1280, 720}, 60, Q::standard, C::h264, 6'000'000},
      {{1920, 1080}, 60, Q::standard, C::h264, 12'000'000},
      {{2560, 1440}, 60, Q::standard, C::h264, 24'000'000},
      {{3840, 2160}, 60, Q::standard, C::h264, 50'000'000},
      {{7680, 4320}, 60, Q::standard, C::h264, 50'000'000},
      // Midpoints of the three stretches: 1,497,600, 2,880,000 and 5,990,400 pixels.
      {{1560, 960}, 60, Q::standard, C::h264, 9'000'000},
      {{2400, 1200}, 60, Q::standard, C::h264, 18'000'000},
      {{2880, 2080}, 60, Q::standard, C::h264, 37'000'000},
      // 1,000,000 pixels: 6,000,000 + 78,400 ÷ 1,152,000 × 6,000,000 = 6,408,333.33, rounded;
      // at 30 fps 4,165,416.67 rounds up.
      {{1000, 1000}, 60, Q::standard, C::h264, 6'408'333},
      {{1000, 1000}, 30, Q::standard, C::h264, 4'165'417},
      // Only exactly 30 fps is reduced.
      {{1920, 1080}, 29, Q::standard, C::h264, 12'000'000},
      {{1920, 1080}, 24, Q::standard, C::h264, 12'000'000},
      {{1920, 1080}, 60, Q::compact, C::hevc, 5'070'000},
      {{1920, 1080}, 60, Q::high, C::hevc, 11'700'000},
      {{3840, 2160}, 60, Q::high, C::h264, 75'000'000},
      // 6,000,000 × 0.65 × 0.65 × 0.65 = 1,647,750 is raised to the floor.
      {{1280, 720}, 30, Q::compact, C::hevc, 3'000'000},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.size.width) + "x" + std::to_string(c.size.height) + " at " +
                 std::to_string(c.framesPerSecond) + " " + std::string(nameOf(c.quality)) + " " +
                 std::string(nameOf(c.codec)));
    EXPECT_EQ(ExportConfiguration::bitRate(c.size, c.framesPerSecond, c.quality, c.codec), c.expected);
  }
}

TEST(ExportFileSizeEstimatorTest, VideoAndAudioRatesWithContainerOverhead) {
  struct Case {
    std::int64_t bitRate;
    std::int64_t durationNanoseconds;
    std::int64_t expected;
  };
  const std::vector<Case> cases = {
      // 10 × 12,192,000 ÷ 8 × 1.002.
      {12'000'000, 10'000'000'000, 15'270'480},
      {3'000'000, 1'500'000'000, 599'697},
      {75'000'000, 3'600'000'000'000, 33'904'072'800},
      // 1,528,575.048 truncated.
      {12'000'000, 1'001'000'000, 1'528'575},
      {12'000'000, 1, 0},
      {12'000'000, 0, 0},
      {12'000'000, -5'000'000'000, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.bitRate) + " bit/s for " + std::to_string(c.durationNanoseconds) + " ns");
    ResolvedExportConfiguration resolved;
    resolved.bitRate = c.bitRate;
    EXPECT_EQ(ExportFileSizeEstimator::estimatedBytes(resolved, {c.durationNanoseconds}), c.expected);
  }
}

TEST(ExportPresetTest, PresetsChooseTheirFourOptions) {
  struct Case {
    ExportPreset preset;
    std::string id;
    ExportConfiguration expected;
  };
  const std::vector<Case> cases = {
      {ExportPreset::highQuality,
       "highQuality",
       {Resolution::p2160, ExportFrameRate::fps60, ExportQuality::high, ExportCodec::h264}},
      {ExportPreset::standard,
       "standard",
       {Resolution::p1080, ExportFrameRate::fps60, ExportQuality::standard, ExportCodec::h264}},
      {ExportPreset::compact,
       "compact",
       {Resolution::p720, ExportFrameRate::fps30, ExportQuality::compact, ExportCodec::h264}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id);
    EXPECT_EQ(nameOf(c.preset), c.id);
    EXPECT_EQ(exportPresetConfiguration(c.preset), c.expected);
  }
  EXPECT_EQ(exportPresetConfiguration(ExportPreset::standard), ExportConfiguration{});
}

template <class E>
struct Words {
  E value;
  std::string raw;
  std::string commandLine;
};

template <class E>
void expectWords(const std::vector<Words<E>>& cases) {
  for (const auto& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(nameOf(c.value), c.raw);
    EXPECT_EQ(commandLineWord(c.value), c.commandLine);
    EXPECT_EQ(parseName<E>(c.raw), c.value);
    EXPECT_EQ(parseCommandLineWord<E>(c.commandLine), c.value);
    EXPECT_EQ(parseCommandLineWord<E>(c.raw), c.value);
  }
}

TEST(ExportNamesTest, RawValuesAndCommandLineWords) {
  expectWords<ExportResolution>({{Resolution::original, "original", "original"},
                                 {Resolution::p720, "p720", "720p"},
                                 {Resolution::p1080, "p1080", "1080p"},
                                 {Resolution::p1440, "p1440", "1440p"},
                                 {Resolution::p2160, "p2160", "2160p"}});
  expectWords<ExportFrameRate>({{ExportFrameRate::source, "source", "source"},
                                {ExportFrameRate::fps30, "fps30", "30"},
                                {ExportFrameRate::fps60, "fps60", "60"}});
  expectWords<ExportQuality>({{ExportQuality::compact, "compact", "compact"},
                              {ExportQuality::standard, "standard", "standard"},
                              {ExportQuality::high, "high", "high"}});
  expectWords<ExportCodec>({{ExportCodec::h264, "h264", "h264"}, {ExportCodec::hevc, "hevc", "hevc"}});
  expectWords<ExportPreset>({{ExportPreset::highQuality, "highQuality", "high-quality"},
                             {ExportPreset::standard, "standard", "standard"},
                             {ExportPreset::compact, "compact", "compact"}});

  EXPECT_EQ(parseCommandLineWord<ExportResolution>("4k"), std::nullopt);
  EXPECT_EQ(parseCommandLineWord<ExportFrameRate>("24"), std::nullopt);
  // Documents hold raw values only.
  EXPECT_EQ(parseName<ExportResolution>("1080p"), std::nullopt);
  EXPECT_EQ(parseName<ExportPreset>("high-quality"), std::nullopt);
}

TEST(ExportConfigurationJsonTest, RecordOfRawValues) {
  ExportConfiguration configuration{Resolution::p2160, ExportFrameRate::fps30, ExportQuality::high, ExportCodec::hevc};
  Json encoded = configuration;
  EXPECT_EQ(encoded, parseJson(R"({"resolution": "p2160", "frameRate": "fps30", "quality": "high",
                                         "codec": "hevc"})"));
  EXPECT_EQ(encoded.get<ExportConfiguration>(), configuration);

  const std::vector<std::string> refused = {
      R"({"resolution": "1080p", "frameRate": "fps60", "quality": "standard", "codec": "h264"})",
      R"({"resolution": "p1080", "frameRate": 60, "quality": "standard", "codec": "h264"})",
      R"({"resolution": "p1080", "frameRate": "fps60", "quality": "standard"})",
      R"(["p1080", "fps60", "standard", "h264"])",
  };
  for (const auto& text : refused) {
    SCOPED_TRACE(text);
    EXPECT_THROW(parseJson(text).get<ExportConfiguration>(), DecodingError);
  }

  ResolvedExportConfiguration resolved{{1920, 1080}, 30, 7'800'000, ExportQuality::standard, ExportCodec::h264};
  EXPECT_EQ(Json(resolved), parseJson(R"({"outputSize": {"width": 1920, "height": 1080},
      "framesPerSecond": 30, "bitRate": 7800000, "quality": "standard", "codec": "h264"})"));
}

TEST(ProjectExporterErrorTest, PayloadsFillTheirTexts) {
  struct Case {
    ProjectExporterError::Case kind;
    std::string detail;
    std::string key;
    std::string text;
  };
  using K = ProjectExporterError::Case;
  const std::vector<Case> cases = {
      {K::bufferAllocation, "-6660", "export.error.bufferAllocation",
       "Unable to allocate an export pixel buffer. Error code: -6660"},
      {K::append, "Broken pipe", "export.error.append", "Unable to write an export frame: Broken pipe"},
      {K::render, "", "export.error.render", "OpenGL offline rendering failed."},
      {K::writerStopped, "", "export.error.writerStopped", "The media writer stopped"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    ProjectExporterError error(c.kind, c.detail);
    EXPECT_EQ(error.kind(), c.kind);
    EXPECT_EQ(error.localizationKey(), c.key);
    EXPECT_EQ(error.table(), "Media");
    EXPECT_EQ(error.message(), c.text);
    EXPECT_EQ(error.classification().kind, ErrorKind::failure);
  }
}

}  // namespace
}  // namespace vumo
