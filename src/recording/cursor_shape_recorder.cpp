#include "recording/cursor_shape_recorder.h"

#include "recording/recording_errors.h"
#include "shared/checked_math.h"

namespace vumo {

CursorShapeRecorder::CursorShapeRecorder(CursorShapeProvider& provider, CursorAssetStore& assetStore,
                                         ChunkStore<CursorShapeSample>& sampleStore, NoteHandler note,
                                         FailureHandler failure)
    : provider_(provider),
      assetStore_(assetStore),
      sampleStore_(sampleStore),
      note_(std::move(note)),
      failure_(std::move(failure)) {}

void CursorShapeRecorder::recordCursorShape(ProjectTime time) {
  std::int64_t since = 0;
  if (lastCursorProbeNanoseconds_ && trySub(time.nanoseconds, *lastCursorProbeNanoseconds_, since) &&
      since < minimumProbeIntervalNanoseconds)
    return;
  lastCursorProbeNanoseconds_ = time.nanoseconds;

  std::optional<CapturedCursorShape> shape = provider_.captureCurrentCursor();
  if (!shape) {
    if (!hasReportedCursorFallback_) {
      hasReportedCursorFallback_ = true;
      note_(std::string(recording_messages::cursorFallback.englishText));
    }
    return;
  }
  try {
    CursorAssetDescriptor descriptor = assetStore_.store(shape->pngData, shape->logicalSize, shape->hotSpot);
    if (descriptor.id == lastCursorAssetID_) return;
    sampleStore_.append(CursorShapeSample{time, descriptor.id});
    lastCursorAssetID_ = descriptor.id;
  } catch (...) {
    failure_(std::current_exception());
  }
}

}  // namespace vumo
