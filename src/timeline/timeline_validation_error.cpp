#include "timeline/timeline_validation_error.h"

#include <fmt/format.h>

namespace vumo {

namespace {

struct CaseText {
  const char* key;
  const char* text;
};

CaseText caseText(TimelineValidationError::Case kind) {
  using Case = TimelineValidationError::Case;
  switch (kind) {
    case Case::unsupportedSchema: return {"timeline.error.schema", ""};
    case Case::rangeOutsideSource:
      return {"timeline.error.outsideSource", "A timeline clip extends beyond the source media."};
    case Case::segmentTooShort: return {"timeline.error.shortClip", "Timeline clips cannot be shorter than one frame."};
    case Case::invalidPlaybackRate:
      return {"editor.error.playbackRate",
              "Playback speed must be a finite value from 0.50 to 4.00 in increments of 0.01."};
    case Case::playbackRateRequiresSchema4:
      return {"timeline.error.speedSchema", "Clips with modified playback speed require Timeline Schema 4."};
    case Case::sequenceSegmentTooShort:
      return {"timeline.error.shortOutput", "A speed-adjusted clip cannot be shorter than one 60 fps output frame."};
    case Case::sequenceDurationOverflow:
      return {"timeline.error.durationOverflow", "The speed-adjusted timeline duration exceeds the supported range."};
    case Case::segmentsOutOfOrder: return {"timeline.error.order", "Timeline clips must be ordered by source time."};
    case Case::overlappingSegments: return {"timeline.error.overlap", "Timeline clips cannot overlap."};
    case Case::invalidAnnotation:
      return {"timeline.error.annotationInvalid", "Annotation timing, geometry, or styling is invalid."};
    case Case::empty: return {"timeline.error.empty", "The timeline must contain at least one clip."};
    case Case::invalidMotionBlurAmount:
      return {"timeline.error.motionBlur", "Motion blur must be between 0% and 100%."};
    case Case::deviceFrameRequiresSchema8:
      return {"timeline.error.frameSchema", "Device frames require Timeline Schema 8."};
    case Case::invalidDeviceFrame: return {"timeline.error.frameMissing", "The device frame asset does not exist."};
    case Case::tooManyAnnotations:
      return {"timeline.error.annotationLimit", "A project cannot contain more than 500 static annotations."};
    case Case::tooManySimultaneousAnnotations:
      return {"timeline.error.simultaneousLimit", "No more than 16 static annotations can be shown at once."};
    case Case::annotationsRequireSchema7:
      return {"timeline.error.annotationSchema", "Static annotations require Timeline Schema 7."};
    case Case::duplicateID:
      return {"timeline.error.duplicateID", "Two items of one kind in the timeline share an identifier."};
  }
  return {"timeline.error.invalid", "The timeline is invalid."};
}

std::string englishText(TimelineValidationError::Case kind, std::int64_t schemaVersion) {
  if (kind == TimelineValidationError::Case::unsupportedSchema)
    return fmt::format("Timeline Schema {} is not supported.", schemaVersion);
  return caseText(kind).text;
}

}  // namespace

TimelineValidationError::TimelineValidationError(Case kind, std::optional<Uuid> id, std::int64_t schemaVersion)
    : Error(caseText(kind).key, "Editor", englishText(kind, schemaVersion)),
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

const char* TimelineValidationError::localizationKeyOf(Case kind) { return caseText(kind).key; }

}  // namespace vumo
