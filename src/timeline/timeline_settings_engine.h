#pragma once

#include <map>
#include <string>
#include <vector>

#include "shared/error.h"
#include "shared/geometry.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Failures of `key=value` settings. The payload is the offending key (never the value).
class TimelineSettingsError : public Error {
 public:
  enum class Case {
    unknownKey,
    invalidValue,
    webcamUnavailable,
  };

  static TimelineSettingsError unknownKey(const std::string& key) { return {Case::unknownKey, key}; }
  static TimelineSettingsError invalidValue(const std::string& key) { return {Case::invalidValue, key}; }
  static TimelineSettingsError webcamUnavailable() { return {Case::webcamUnavailable, {}}; }

  Case kind() const noexcept { return kind_; }
  // The key the failure concerns; empty for webcamUnavailable.
  const std::string& settingKey() const noexcept { return key_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  TimelineSettingsError(Case kind, std::string key);
  Case kind_;
  std::string key_;
};

// The one parser of setting strings, for the command line's `set` and an edit plan's settings.
struct TimelineSettingsEngine {
  // Applies every pair in sorted key order (so where two keys touch one field, the later key in
  // that order wins), then keeps the camera overlay inside the output. Any bad pair stops the
  // whole batch: there is no partial result. Validation is the caller's, who knows the source
  // duration.
  static EditTimeline applying(const std::map<std::string, std::string>& values, const EditTimeline& timeline,
                               bool hasWebcam, PixelSize sourceSize);

  // Clamps the overlay's centre so that the whole camera stays on the output of the canvas's
  // aspect ratio (`source` uses `sourceSize`). Keyframes are clamped when evaluated.
  static EditTimeline constrainWebcam(const EditTimeline& timeline, PixelSize sourceSize);

  // The timeline with `cursor`, its scale clamped to what `cursor.scale` takes; a scale that is not a
  // finite number is `invalidValue("cursor.scale")`.
  static EditTimeline withCursor(const EditTimeline& timeline, const CursorEdit& cursor);

  // Output width over height of the timeline's canvas for a source of `sourceSize`.
  static double outputAspectRatio(const EditTimeline& timeline, PixelSize sourceSize);

  // Every key `applying` understands, sorted.
  static const std::vector<std::string>& supportedKeys();
};

}  // namespace vumo
