#pragma once

#include <string>

#include "shared/error.h"

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
  ErrorClassification classification() const override { return {"validation", ErrorKind::validation}; }

 private:
  TimelineSettingsError(Case kind, std::string key);
  Case kind_;
  std::string key_;
};

}  // namespace vumo
