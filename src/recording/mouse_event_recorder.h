#pragma once

#include <functional>
#include <mutex>

#include "capture/capture_streams.h"
#include "recording/recording_clock.h"
#include "recording/recording_control_region.h"
#include "timeline/mouse_event.h"

namespace vumo {

// Places the pointer events of a recording on its timeline. The stream delivers on its own thread;
// events on the control panel, events while the clock takes no host time (before the first frame,
// paused, stopping) and events before the first geometry are dropped. Events outside the captured
// area are kept, marked as such: the pointer's smoothing needs to see it leave and come back.
class MouseEventRecorder {
 public:
  using Handler = std::function<void(const MouseEvent&)>;

  // Borrows everything; all of it must outlive the recorder.
  MouseEventRecorder(PointerEventStream& stream, const RecordingClock& clock, const GeometryTracker& geometryTracker,
                     const RecordingControlRegionStore& controlRegionStore, Handler handler);
  ~MouseEventRecorder();
  MouseEventRecorder(const MouseEventRecorder&) = delete;
  MouseEventRecorder& operator=(const MouseEventRecorder&) = delete;

  // MouseEventRecorderError::eventTapUnavailable when the stream cannot be started.
  void start();
  // Drops whatever arrives from now on, then stops the stream. Never throws.
  void stop() noexcept;

  // One event, as the stream's thread delivers it.
  void handle(const PointerEvent& event);

 private:
  PointerEventStream& stream_;
  const RecordingClock& clock_;
  const GeometryTracker& geometryTracker_;
  const RecordingControlRegionStore& controlRegionStore_;
  Handler handler_;
  std::mutex lock_;
  bool stopping_ = false;
  bool running_ = false;
};

}  // namespace vumo
