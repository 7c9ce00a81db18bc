#pragma once

#include "shared/error.h"

namespace vumo {

// Failures of clip edits: split, trim, ripple delete and source-range removal.
class TimelineEditError : public Error {
 public:
  enum class Case {
    noSegmentAtPlayhead,
    splitAtBoundary,
    segmentNotFound,
    trimOutsideHandles,
    cannotDeleteLastSegment,
    invalidRange,
  };

  explicit TimelineEditError(Case kind);
  Case kind() const noexcept { return kind_; }
  ErrorClassification classification() const override { return {"validation", ErrorKind::validation}; }

 private:
  Case kind_;
};

}  // namespace vumo
