#include "recording/recording_errors.h"

namespace vumo {

namespace {

constexpr std::string_view recordingTable = "RecordingErrors";

using Session = ScreenRecordingSessionError::Case;
constexpr ErrorCase<Session> sessionCases[] = {
    {Session::invalidFrameMetadata, "invalidFrameMetadata", "recording.error.invalidFrameMetadata",
     "X11 returned invalid frame metadata.", "execution", ErrorKind::failure},
    {Session::noVideoFrames, "noVideoFrames", "recording.error.noScreenFrames",
     "No valid screen frames were received during recording.", "execution", ErrorKind::failure},
    {Session::sourceRectBecameInvalid, "sourceRectBecameInvalid", "recording.error.captureGeometryChanged",
     "Cropped recording stopped because the display resolution, scaling, or connection changed.", "execution",
     ErrorKind::failure},
    {Session::sampleRetimingFailed, "sampleRetimingFailed", "recording.error.sampleRetiming",
     "Unable to adjust recording timestamps for paused intervals.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(sessionCases));

using Recorder = MouseEventRecorderError::Case;
constexpr ErrorCase<Recorder> recorderCases[] = {
    {Recorder::eventTapUnavailable, "eventTapUnavailable", "recording.error.mouseEventTap",
     "Unable to monitor mouse events. Check that the X server offers the XInput2 extension.", "execution",
     ErrorKind::failure},
};
static_assert(inCaseOrder(recorderCases));

}  // namespace

ScreenRecordingSessionError::ScreenRecordingSessionError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<ScreenRecordingSessionError::Case>& ScreenRecordingSessionError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ScreenRecordingSessionError", recordingTable, sessionCases};
  return catalogue;
}

MouseEventRecorderError::MouseEventRecorderError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<MouseEventRecorderError::Case>& MouseEventRecorderError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"MouseEventRecorderError", recordingTable, recorderCases};
  return catalogue;
}

}  // namespace vumo
