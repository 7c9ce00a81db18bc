#include "timeline/timeline_validation_error.h"

#include <string>

#include "timeline/edit_timeline.h"

namespace vumo {

namespace {

using Case = TimelineValidationError::Case;

constexpr ErrorCase<Case> errorCases[] = {
    {Case::unsupportedSchema, "unsupportedSchema", "timeline.error.schema", "Timeline Schema {} is not supported.",
     "validation", ErrorKind::validation},
    {Case::rangeOutsideSource, "rangeOutsideSource", "timeline.error.outsideSource",
     "A timeline clip extends beyond the source media.", "validation", ErrorKind::validation},
    {Case::segmentTooShort, "segmentTooShort", "timeline.error.shortClip",
     "Timeline clips cannot be shorter than one frame.", "validation", ErrorKind::validation},
    {Case::invalidPlaybackRate, "invalidPlaybackRate", TimelinePlaybackRate::invalidKey,
     TimelinePlaybackRate::invalidText, "validation", ErrorKind::validation},
    {Case::playbackRateRequiresSchema4, "playbackRateRequiresSchema4", "timeline.error.speedSchema",
     "Clips with modified playback speed require Timeline Schema 4.", "validation", ErrorKind::validation},
    {Case::sequenceSegmentTooShort, "sequenceSegmentTooShort", "timeline.error.shortOutput",
     "A speed-adjusted clip cannot be shorter than one 60 fps output frame.", "validation", ErrorKind::validation},
    {Case::sequenceDurationOverflow, "sequenceDurationOverflow", "timeline.error.durationOverflow",
     "The speed-adjusted timeline duration exceeds the supported range.", "validation", ErrorKind::validation},
    {Case::segmentsOutOfOrder, "segmentsOutOfOrder", "timeline.error.order",
     "Timeline clips must be ordered by source time.", "validation", ErrorKind::validation},
    {Case::overlappingSegments, "overlappingSegments", "timeline.error.overlap", "Timeline clips cannot overlap.",
     "validation", ErrorKind::validation},
    {Case::invalidAnnotation, "invalidAnnotation", "timeline.error.annotationInvalid",
     "Annotation timing, geometry, or styling is invalid.", "validation", ErrorKind::validation},
    {Case::empty, "empty", "timeline.error.empty", "The timeline must contain at least one clip.", "validation",
     ErrorKind::validation},
    {Case::invalidMotionBlurAmount, "invalidMotionBlurAmount", "timeline.error.motionBlur",
     "Motion blur must be between 0% and 100%.", "validation", ErrorKind::validation},
    {Case::deviceFrameRequiresSchema8, "deviceFrameRequiresSchema8", "timeline.error.frameSchema",
     "Device frames require Timeline Schema 8.", "validation", ErrorKind::validation},
    {Case::invalidDeviceFrame, "invalidDeviceFrame", "timeline.error.frameMissing",
     "The device frame asset does not exist.", "validation", ErrorKind::validation},
    {Case::tooManyAnnotations, "tooManyAnnotations", "timeline.error.annotationLimit",
     "A project cannot contain more than 500 static annotations.", "validation", ErrorKind::validation},
    {Case::tooManySimultaneousAnnotations, "tooManySimultaneousAnnotations", "timeline.error.simultaneousLimit",
     "No more than 16 static annotations can be shown at once.", "validation", ErrorKind::validation},
    {Case::annotationsRequireSchema7, "annotationsRequireSchema7", "timeline.error.annotationSchema",
     "Static annotations require Timeline Schema 7.", "validation", ErrorKind::validation},
    {Case::duplicateID, "duplicateID", "timeline.error.duplicateID",
     "Two items of one kind in the timeline share an identifier.", "validation", ErrorKind::validation},
};
static_assert(inCaseOrder(errorCases));

}  // namespace

TimelineValidationError::TimelineValidationError(Case kind, std::optional<Uuid> id, std::int64_t schemaVersion)
    : Error(catalogue(), kind, kind == Case::unsupportedSchema ? std::to_string(schemaVersion) : std::string()),
      kind_(kind),
      id_(std::move(id)),
      schemaVersion_(schemaVersion) {}

TimelineValidationError TimelineValidationError::unsupportedSchema(std::int64_t version) {
  return TimelineValidationError(Case::unsupportedSchema, std::nullopt, version);
}

TimelineValidationError TimelineValidationError::withID(Case kind, const Uuid& id) {
  return TimelineValidationError(kind, id, 0);
}

TimelineValidationError TimelineValidationError::of(Case kind) {
  return TimelineValidationError(kind, std::nullopt, 0);
}

const ErrorCatalogue<Case>& TimelineValidationError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"TimelineValidationError", "Editor", errorCases};
  return catalogue;
}

}  // namespace vumo
