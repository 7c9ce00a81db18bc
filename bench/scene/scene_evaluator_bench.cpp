// Evaluation runs once per output frame on the render thread. On a 100 s recording with 10,000
// pointer events (200 of them clicks) and 20 zooms, one evaluation is measured against the bare
// cursor lookup it contains, frame by frame at 60 fps in the same run: the ratio shows what the
// rest (camera, shutter, overlay, click scan, annotations) costs on top of the binary search.

#include <benchmark/benchmark.h>

#include <cstdint>

#include "recording_reporter.h"
#include "scene/scene_evaluator.h"

namespace {

using namespace vumo;

constexpr std::int64_t kEvents = 10'000;
constexpr std::int64_t kEventSpacing = 10'000'000;  // 10 ms
constexpr std::int64_t kDuration = kEvents * kEventSpacing;
constexpr std::int64_t kFrame = 16'666'667;

ProjectSnapshot recording() {
  ProjectSnapshot snapshot;
  snapshot.manifest.encodedPixelSize = {1'920, 1'080};
  snapshot.manifest.webcam = WebcamMediaInfo{};
  for (std::int64_t i = 0; i < kEvents; ++i) {
    MouseEvent event;
    event.time = {i * kEventSpacing};
    event.normalizedPoint = {static_cast<double>(i % 97) / 97.0, static_cast<double>(i % 89) / 89.0};
    if (i % 50 == 0) {
      event.phase = MousePhase::down;
      event.button = MouseButton::left;
    }
    snapshot.mouseEvents.push_back(event);
  }
  EditTimeline& timeline = snapshot.timeline;
  for (std::int64_t i = 0; i < 20; ++i) {
    const std::int64_t start = i * 5'000'000'000;
    timeline.zooms.push_back({Uuid::random(),
                              {start},
                              {start + 300'000'000},
                              {start + 1'700'000'000},
                              {start + 2'000'000'000},
                              {0.4, 0.6},
                              2.0});
  }
  timeline.webcamOverlay = WebcamOverlay::defaultValue();
  timeline.webcamFullscreenSegments = {{Uuid::random(), {40'000'000'000}, {45'000'000'000}}};
  return snapshot;
}

const SceneEvaluator& evaluator() {
  static const SceneEvaluator instance(recording());
  return instance;
}

ProjectTime nextFrame(std::int64_t& t) {
  t += kFrame;
  if (t >= kDuration) t -= kDuration;
  return {t};
}

void BM_Evaluate(benchmark::State& state) {
  const SceneEvaluator& scene = evaluator();
  const TimelineVisualEdits& edits = scene.defaultVisualEdits();
  std::int64_t t = 0;
  for (auto _ : state) benchmark::DoNotOptimize(scene.evaluate(nextFrame(t), edits, nullptr));
}

void BM_CursorPosition(benchmark::State& state) {
  const CursorInterpolator& cursor = evaluator().cursor();
  std::int64_t t = 0;
  for (auto _ : state) benchmark::DoNotOptimize(cursor.position(nextFrame(t)));
}

BENCHMARK(BM_Evaluate);
BENCHMARK(BM_CursorPosition);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(
      argc, argv, {{"evaluate / cursor position (10,000 events, 20 zooms)", "BM_Evaluate", "BM_CursorPosition"}},
      [] { evaluator(); });
}
