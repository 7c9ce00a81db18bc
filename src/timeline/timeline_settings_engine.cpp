#include "timeline/timeline_settings_engine.h"

namespace vumo {

namespace {

const char* keyOf(TimelineSettingsError::Case kind) {
  using C = TimelineSettingsError::Case;
  switch (kind) {
    case C::unknownKey:
      return "timeline.error.settingUnsupported";
    case C::invalidValue:
      return "timeline.error.settingInvalid";
    case C::webcamUnavailable:
      return "timeline.error.noCamera";
  }
  return "timeline.error.settingInvalid";
}

std::string textOf(TimelineSettingsError::Case kind, const std::string& key) {
  using C = TimelineSettingsError::Case;
  switch (kind) {
    case C::unknownKey:
      return "Unsupported setting: " + key;
    case C::invalidValue:
      return "Invalid value for setting: " + key;
    case C::webcamUnavailable:
      return "This project has no camera track.";
  }
  return "Invalid value for setting: " + key;
}

}  // namespace

TimelineSettingsError::TimelineSettingsError(Case kind, std::string key)
    : Error(keyOf(kind), "Editor", textOf(kind, key)), kind_(kind), key_(std::move(key)) {}

}  // namespace vumo
