// The cost of applying a full agent edit plan, measured against what every later load of the
// project pays for its result: decoding and validating the timeline the plan produces. A one-hour
// recording with 300 zooms gets the largest plan the exchange accepts, 500 operations: 200 cuts
// (150 of them through zooms), 150 speed changes and 150 added zooms.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "agent/timeline_plan_engine.h"
#include "recording_reporter.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_effect_engine.h"
#include "timeline/timeline_validator.h"

namespace {

using vumo::ProjectTime;
using vumo::ProjectTimeRange;

constexpr int kSlots = 500;
constexpr std::int64_t kSlotMilliseconds = 7'200;  // 500 slots fill one hour
const ProjectTime kSource = ProjectTime::fromMilliseconds(kSlots * kSlotMilliseconds);

ProjectTime at(int slot, std::int64_t offsetMilliseconds) {
  return ProjectTime::fromMilliseconds(slot * kSlotMilliseconds + offsetMilliseconds);
}

ProjectTimeRange span(int slot, std::int64_t from, std::int64_t to) {
  return ProjectTimeRange::fromStartEnd(at(slot, from), at(slot, to));
}

// Slots whose number ends in 0...4 hold an existing zoom from 0.5 s to 3 s; 0...3 also get a cut
// from 0.2 s to 0.7 s (so 0...2 cut into their zoom), 4...6 a speed change from 3.5 s to 5 s and
// 7...9 an added zoom from 5.5 s to 7 s.
vumo::EditTimeline hourTimeline() {
  vumo::EditTimeline timeline = vumo::EditTimeline::empty();
  timeline.segments.push_back(
      {vumo::Uuid::random(), {ProjectTime::zero(), kSource}, vumo::TimelinePlaybackRate::normal()});
  for (int slot = 0; slot < kSlots; ++slot) {
    if (slot % 5 > 2) continue;
    vumo::ZoomSegment zoom;
    zoom.id = vumo::Uuid::random();
    zoom.startTime = at(slot, 500);
    zoom.focusTime = at(slot, 1'150);
    zoom.holdEndTime = at(slot, 2'500);
    zoom.endTime = at(slot, 3'000);
    zoom.scale = 1.8;
    zoom.focusPoint = vumo::TimelineEffectEngine::constrainedFocus({0.3, 0.7}, zoom.scale);
    timeline.zooms.push_back(zoom);
  }
  return timeline;
}

vumo::TimelineEditPlan fullPlan() {
  vumo::TimelineEditPlan plan;
  for (int slot = 0; slot < kSlots; ++slot) {
    int kind = slot % 10;
    if (kind <= 3) {
      plan.cuts.push_back(span(slot, 200, 700));
    } else if (kind <= 6) {
      plan.speedChanges.push_back({span(slot, 3'500, 5'000), vumo::TimelinePlaybackRate{1500}});
    } else {
      plan.zooms.push_back({span(slot, 5'500, 7'000), 2.0, std::nullopt});
    }
  }
  return plan;
}

const vumo::EditTimeline& timeline() {
  static const vumo::EditTimeline value = hourTimeline();
  return value;
}

vumo::TimelinePlanResult applyFullPlan() {
  return vumo::TimelinePlanEngine::apply(fullPlan(), timeline(), kSource, false, {1920, 1080}, {});
}

void BM_DecodeAndValidateResult(benchmark::State& state) {
  const std::string text = vumo::encodeEditTimeline(applyFullPlan().timeline);
  for (auto _ : state) {
    vumo::EditTimeline decoded = vumo::decodeEditTimeline(text);
    vumo::TimelineValidator::validate(decoded, kSource);
    benchmark::DoNotOptimize(decoded);
  }
}
BENCHMARK(BM_DecodeAndValidateResult)->Unit(benchmark::kMillisecond);

void BM_ApplyFullPlan(benchmark::State& state) {
  const vumo::TimelineEditPlan plan = fullPlan();
  if (plan.operationCount() != 500) state.SkipWithError("plan is not 500 operations");
  for (auto _ : state) {
    auto result = vumo::TimelinePlanEngine::apply(plan, timeline(), kSource, false, {1920, 1080}, {});
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(BM_ApplyFullPlan)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  // Fail loudly rather than time an exception path.
  auto check = applyFullPlan();
  std::printf("plan result: %zu clips, %zu zooms, %zu zoom reconciliations\n", check.timeline.segments.size(),
              check.timeline.zooms.size(), check.zoomReconciliations.size());
  return vumo::bench::runAndCompare(
      argc, argv,
      {{"apply a 500-operation plan / decode+validate its result", "BM_ApplyFullPlan", "BM_DecodeAndValidateResult"}});
}
