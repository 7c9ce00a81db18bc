#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "shared/error.h"
#include "shared/uuid.h"

namespace vumo {

// Why a timeline document is not acceptable. Validation never repairs: the caller keeps the old
// document and reports this.
class TimelineValidationError : public Error {
 public:
  enum class Case {
    unsupportedSchema,            // payload: schemaVersion
    rangeOutsideSource,           // payload: segment id
    segmentTooShort,              // payload: segment id
    invalidPlaybackRate,          // payload: segment id
    playbackRateRequiresSchema4,  // payload: segment id
    sequenceSegmentTooShort,      // payload: segment id
    sequenceDurationOverflow,     // payload: segment id
    segmentsOutOfOrder,           // payload: segment id
    overlappingSegments,          // payload: segment id
    invalidAnnotation,            // payload: annotation id
    empty,
    invalidMotionBlurAmount,
    deviceFrameRequiresSchema8,
    invalidDeviceFrame,
    tooManyAnnotations,
    tooManySimultaneousAnnotations,
    annotationsRequireSchema7,
    duplicateID,  // payload: the shared id
  };

  static TimelineValidationError unsupportedSchema(std::int64_t version);
  static TimelineValidationError withID(Case kind, const Uuid& id);
  static TimelineValidationError of(Case kind);

  Case kind() const noexcept { return kind_; }
  // The offending segment or annotation, or the shared id, for the cases that name one.
  const std::optional<Uuid>& id() const noexcept { return id_; }
  // The refused version, for `unsupportedSchema`.
  std::int64_t schemaVersion() const noexcept { return schemaVersion_; }

  static const ErrorCatalogue<Case>& catalogue();

 private:
  TimelineValidationError(Case kind, std::optional<Uuid> id, std::int64_t schemaVersion);

  Case kind_;
  std::optional<Uuid> id_;
  std::int64_t schemaVersion_ = 0;
};

}  // namespace vumo
