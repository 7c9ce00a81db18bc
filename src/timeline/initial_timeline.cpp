#include "timeline/initial_timeline.h"

#include "timeline/auto_zoom_engine.h"

namespace vumo {

EditTimeline makeInitialTimeline(ProjectTime duration, const std::optional<WebcamOverlay>& webcamOverlay,
                                 const std::vector<MouseEvent>& recordedEvents) {
  EditTimeline timeline = EditTimeline::empty();
  if (webcamOverlay) {
    WebcamOverlay overlay = *webcamOverlay;
    overlay.center = WebcamOverlay::newRecording().center;
    timeline.webcamOverlay = overlay;
  }
  timeline.segments.push_back({Uuid::random(), {ProjectTime::zero(), duration}, TimelinePlaybackRate::normal()});

  // Clicks outside the captured window or area happened in something the film does not show.
  std::vector<MouseEvent> visible;
  visible.reserve(recordedEvents.size());
  for (const MouseEvent& event : recordedEvents)
    if (event.isVisibleInsideSource()) visible.push_back(event);
  timeline.zooms = AutoZoomEngine::standard().makeSegments(visible, duration);
  return timeline;
}

}  // namespace vumo
