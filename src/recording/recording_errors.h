#pragma once
// The error families of a recording. Their texts live in the localisation table `RecordingErrors`.

#include <string_view>

#include "shared/error.h"

namespace vumo {

class ScreenRecordingSessionError : public Error {
 public:
  enum class Case {
    // Kept for the catalogue's sake: frames with bad metadata are counted and dropped, never fatal.
    invalidFrameMetadata,
    noVideoFrames,
    sourceRectBecameInvalid,
    sampleRetimingFailed,
  };

  explicit ScreenRecordingSessionError(Case kind);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

class MouseEventRecorderError : public Error {
 public:
  enum class Case { eventTapUnavailable };

  explicit MouseEventRecorderError(Case kind);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Messages of a recording that are no errors: notes in the diagnostic report, and what the owner
// shows when a discard could not remove the files.
struct RecordingMessage {
  std::string_view key;
  std::string_view englishText;
};

namespace recording_messages {
inline constexpr RecordingMessage cursorFallback{
    "recording.error.cursorFallback",
    "System cursor shapes are unavailable. Recording and rendering use the arrow cursor instead."};
inline constexpr RecordingMessage cursorSetupFallback{"recording.error.cursorSetupFallback",
                                                      "System cursor shapes are unavailable. Using the arrow cursor."};
// Followed by the error's own text.
inline constexpr RecordingMessage discardFailed{"recording.error.discardFailed",
                                                "Recording stopped, but temporary files could not be deleted: "};
}  // namespace recording_messages

}  // namespace vumo
