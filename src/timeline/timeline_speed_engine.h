#pragma once

#include "shared/error.h"

namespace vumo {

// Failures of playback-speed changes.
class TimelineSpeedError : public Error {
 public:
  enum class Case {
    invalidRate,
    invalidRange,
    rangeOutsideRetainedContent,
    conflictingRanges,
    noChange,
  };

  explicit TimelineSpeedError(Case kind);
  Case kind() const noexcept { return kind_; }
  ErrorClassification classification() const override { return {"validation", ErrorKind::validation}; }

 private:
  Case kind_;
};

}  // namespace vumo
