#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <string>

#include "capture/capture_streams.h"
#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "project/cursor_records.h"
#include "shared/project_time.h"

namespace vumo {

// What the pointer looked like through a recording: each distinct image once in the package's
// asset store, and one sample each time the image changes, stamped with the project time of the
// probe that saw it. Called by one sampling thread only.
class CursorShapeRecorder {
 public:
  // Called once, when the platform cannot tell the pointer's image; the recording goes on.
  using NoteHandler = std::function<void(const std::string&)>;
  // A store that cannot take a cursor file will not take the rest of the recording either.
  using FailureHandler = std::function<void(std::exception_ptr)>;

  static constexpr std::int64_t minimumProbeIntervalNanoseconds = 33'333'333;  // 30 probes a second

  // Borrows everything; all of it must outlive the recorder.
  CursorShapeRecorder(CursorShapeProvider& provider, CursorAssetStore& assetStore,
                      ChunkStore<CursorShapeSample>& sampleStore, NoteHandler note, FailureHandler failure);

  // One probe at project time `time`, unless the previous one was less than 1/30 s before.
  void recordCursorShape(ProjectTime time);

 private:
  CursorShapeProvider& provider_;
  CursorAssetStore& assetStore_;
  ChunkStore<CursorShapeSample>& sampleStore_;
  NoteHandler note_;
  FailureHandler failure_;
  std::optional<std::int64_t> lastCursorProbeNanoseconds_;
  std::optional<std::string> lastCursorAssetID_;
  bool hasReportedCursorFallback_ = false;
};

}  // namespace vumo
