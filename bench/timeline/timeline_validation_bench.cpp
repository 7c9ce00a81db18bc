// Validation runs on every edit and every load, so on a timeline of 1,000 clips, 300 zooms and 500
// annotations it must stay a small part of what a load pays anyway: decoding the same document,
// measured in the same run.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "recording_reporter.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_validator.h"

namespace {

using namespace vumo;

struct Fixture {
  EditTimeline timeline = EditTimeline::empty();
  ProjectTime sourceDuration;
  std::string document;

  Fixture() {
    std::mt19937_64 random(11);
    auto integer = [&](std::int64_t low, std::int64_t high) {
      return std::uniform_int_distribution<std::int64_t>(low, high)(random);
    };
    std::int64_t cursor = 0;
    for (int i = 0; i < 1000; ++i) {
      std::int64_t length = integer(500'000'000, 3'000'000'000);
      timeline.segments.push_back({Uuid::random(),
                                   {ProjectTime{cursor}, ProjectTime{length}},
                                   {static_cast<std::int32_t>(500 + 10 * integer(0, 350))}});
      cursor += length + integer(0, 500'000'000);
    }
    sourceDuration = ProjectTime{cursor};
    const std::int64_t zoomSlot = cursor / 300;
    for (int i = 0; i < 300; ++i) {
      std::int64_t start = zoomSlot * i + integer(0, zoomSlot / 4);
      std::int64_t end = start + integer(zoomSlot / 4, zoomSlot / 2);
      double scale = 1.0 + static_cast<double>(integer(0, 200)) / 100.0;
      PointValue focus =
          TimelineEffectEngine::constrainedFocus({static_cast<double>(integer(0, 100)) / 100.0, 0.3}, scale);
      timeline.zooms.push_back({Uuid::random(), ProjectTime{start}, ProjectTime{start + (end - start) / 4},
                                ProjectTime{end - (end - start) / 4}, ProjectTime{end}, focus, scale});
    }
    const std::int64_t annotationSlot = cursor / 500;
    for (int i = 0; i < 500; ++i) {
      AnnotationElement a;
      a.id = Uuid::random();
      a.startTime = ProjectTime{annotationSlot * i};
      a.endTime = ProjectTime{annotationSlot * i + annotationSlot * 8};  // eight at a time
      if (a.endTime > sourceDuration) a.endTime = sourceDuration;
      a.zIndex = i;
      a.trackIndex = i % 8;
      switch (i % 3) {
        case 0:
          a.kind = AnnotationKind::arrow;
          a.startPoint = PointValue{0.1, 0.1};
          a.endPoint = PointValue{0.6, 0.4};
          break;
        case 1:
          a.kind = AnnotationKind::text;
          a.bounds = RectValue{0.1, 0.7, 0.5, 0.1};
          a.textStyle = TextAnnotationStyle{"第 " + std::to_string(i) + " 步：打开设置", 36, true,
                                            TextAnnotationOutlineColor::black};
          break;
        default:
          a.kind = AnnotationKind::rectangle;
          a.bounds = RectValue{0.2, 0.2, 0.3, 0.3};
          break;
      }
      timeline.annotations.push_back(a);
    }
    TimelineValidator::validate(timeline, sourceDuration);  // the fixture itself must be valid
    document = encodeEditTimeline(timeline);
  }
};

const Fixture& fixture() {
  static const Fixture f;
  return f;
}

void BM_Validate(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) TimelineValidator::validate(f.timeline, f.sourceDuration);
}
BENCHMARK(BM_Validate)->Unit(benchmark::kMicrosecond);

void BM_DecodeDocument(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    EditTimeline decoded = decodeEditTimeline(f.document);
    benchmark::DoNotOptimize(decoded);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * f.document.size()));
}
BENCHMARK(BM_DecodeDocument)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(argc, argv,
                                    {{"validate / decode the same document (1,000 clips, 300 zooms, 500 annotations)",
                                      "BM_Validate", "BM_DecodeDocument"}});
}
