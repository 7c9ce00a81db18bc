// Arbitrary bytes as an agent's edit plan file or job record: decoding, the domain plan and the
// plan engine must either accept the input or fail with the program's own errors, never crash,
// hang or trip a sanitizer. A plan that is accepted must survive encoding and decoding unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <vector>

#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "shared/json.h"
#include "timeline/edit_timeline.h"

namespace {

using vumo::ProjectTime;

constexpr ProjectTime kSource{120'000'000'000};

vumo::ZoomSegment zoom(std::int64_t startMilliseconds, std::int64_t endMilliseconds) {
  vumo::ZoomSegment z;
  z.id = vumo::Uuid::random();
  z.startTime = ProjectTime::fromMilliseconds(startMilliseconds);
  z.focusTime = ProjectTime::fromMilliseconds(startMilliseconds + 500);
  z.holdEndTime = ProjectTime::fromMilliseconds(endMilliseconds - 500);
  z.endTime = ProjectTime::fromMilliseconds(endMilliseconds);
  z.scale = 2;
  return z;
}

// A timeline with a gap, a sped-up clip and zooms, so that plans meet every kind of content.
const vumo::EditTimeline& sampleTimeline() {
  static const vumo::EditTimeline timeline = [] {
    vumo::EditTimeline t = vumo::EditTimeline::empty();
    auto clip = [](std::int64_t start, std::int64_t end, std::int32_t permille) {
      return vumo::TimelineSegment{vumo::Uuid::random(),
                                   vumo::ProjectTimeRange::fromStartEnd(ProjectTime::fromMilliseconds(start),
                                                                        ProjectTime::fromMilliseconds(end)),
                                   vumo::TimelinePlaybackRate{permille}};
    };
    t.segments = {clip(0, 50'000, 1000), clip(52'000, 100'000, 1000), clip(100'000, 120'000, 1500)};
    t.zooms = {zoom(10'000, 14'000), zoom(45'000, 50'000), zoom(101'000, 105'000)};
    return t;
  }();
  return timeline;
}

void applyToSample(const vumo::TimelineEditPlan& plan) {
  std::vector<vumo::MouseEvent> clicks(1);
  clicks[0].time = ProjectTime::fromMilliseconds(11'000);
  clicks[0].button = vumo::MouseButton::left;
  clicks[0].phase = vumo::MousePhase::down;
  clicks[0].normalizedPoint = {0.2, 0.3};
  try {
    auto first = vumo::TimelinePlanEngine::apply(plan, sampleTimeline(), kSource, false, {1920, 1080}, clicks);
    auto second = vumo::TimelinePlanEngine::apply(plan, sampleTimeline(), kSource, false, {1920, 1080}, clicks);
    // Preview and commit must agree byte for byte.
    if (vumo::encodeEditTimeline(first.timeline) != vumo::encodeEditTimeline(second.timeline)) std::abort();
  } catch (const vumo::Error&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);

  try {
    (void)vumo::decodeEditPlanJob(bytes);
  } catch (const vumo::EditPlanValidationError&) {
  }

  vumo::EditPlanExchangeDocument document;
  try {
    document = vumo::decodeEditPlanDocument(bytes);
  } catch (const vumo::EditPlanValidationError&) {
    return 0;
  }

  const ProjectTime durations[] = {ProjectTime::zero(), kSource, {std::numeric_limits<std::int64_t>::max()}};
  for (ProjectTime sourceDuration : durations) {
    vumo::TimelineEditPlan plan;
    try {
      plan = document.domainPlan(sourceDuration);
    } catch (const vumo::EditPlanValidationError&) {
      continue;
    } catch (const vumo::TimelinePlanError&) {
      continue;
    }
    auto reread = vumo::decodeEditPlanDocument(vumo::encodeDocument(vumo::Json(document)));
    if (!(reread == document)) std::abort();
    if (sourceDuration == kSource) applyToSample(plan);
  }
  return 0;
}
