#include "recording/mouse_event_recorder.h"

#include "recording/recording_errors.h"

namespace vumo {

MouseEventRecorder::MouseEventRecorder(PointerEventStream& stream, const RecordingClock& clock,
                                       const GeometryTracker& geometryTracker,
                                       const RecordingControlRegionStore& controlRegionStore, Handler handler)
    : stream_(stream),
      clock_(clock),
      geometryTracker_(geometryTracker),
      controlRegionStore_(controlRegionStore),
      handler_(std::move(handler)) {}

MouseEventRecorder::~MouseEventRecorder() { stop(); }

void MouseEventRecorder::start() {
  {
    std::lock_guard guard(lock_);
    stopping_ = false;
  }
  try {
    stream_.start([this](const PointerEvent& event) { handle(event); });
  } catch (...) {
    // Whatever the input system said, the user's remedy is the same one.
    throw MouseEventRecorderError(MouseEventRecorderError::Case::eventTapUnavailable);
  }
  std::lock_guard guard(lock_);
  running_ = true;
}

void MouseEventRecorder::stop() noexcept {
  bool wasRunning = false;
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
    wasRunning = running_;
    running_ = false;
  }
  if (!wasRunning) return;
  try {
    stream_.stop();
  } catch (...) {
    // A stream that fails to stop delivers nothing that is kept: `stopping_` is set.
  }
}

void MouseEventRecorder::handle(const PointerEvent& event) {
  {
    std::lock_guard guard(lock_);
    if (stopping_) return;
  }
  if (controlRegionStore_.contains(event.globalPoint)) return;
  std::optional<ProjectTime> time = clock_.projectTimeForPointerTimestamp(event.hostTimeNanoseconds);
  if (!time) return;  // a negative time is kept: the event came before the anchor but after the start
  std::optional<GeometrySample> geometry = geometryTracker_.current();
  if (!geometry) return;
  MouseEvent recorded;
  recorded.rawTimestampNanoseconds = event.rawTimestampNanoseconds;
  recorded.time = *time;
  recorded.globalPoint = event.globalPoint;
  recorded.localPoint = geometry->localPoint(event.globalPoint);
  recorded.normalizedPoint = geometry->normalizedPoint(event.globalPoint);
  recorded.geometryRevision = geometry->revision;
  recorded.button = event.button;
  recorded.phase = event.phase;
  recorded.isInsideSource = rectangleContains(geometry->globalWindowFrame, event.globalPoint);
  handler_(recorded);
}

}  // namespace vumo
