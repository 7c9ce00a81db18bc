// Arbitrary bytes as a timeline document. Reading must either succeed or throw DecodingError (or
// the validator's refusal of ids shared within one kind); a decoded timeline must survive writing and reading again
// unchanged, and normalising, validating and mapping it must finish without stopping the process, whatever the numbers.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "timeline/edit_timeline.h"
#include "timeline/timeline_mapper.h"
#include "timeline/timeline_validator.h"

namespace {

using namespace vumo;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "timeline_decoder: %s\n", what);
  std::abort();
}

// The source durations tried: none, a typical one, one that every clip of the document fits, and
// the largest there is.
std::int64_t coveringDuration(const EditTimeline& timeline) {
  std::int64_t end = 0;
  for (const auto& segment : timeline.segments) {
    std::int64_t segmentEnd;
    if (__builtin_add_overflow(segment.sourceRange.start.nanoseconds, segment.sourceRange.duration.nanoseconds,
                               &segmentEnd))
      return std::numeric_limits<std::int64_t>::max();
    end = std::max(end, segmentEnd);
  }
  return end;
}

void exercise(const EditTimeline& timeline, ProjectTime sourceDuration) {
  try {
    TimelineValidator::validate(timeline, sourceDuration);
  } catch (const Error&) {
    return;
  }
  TimelineMapper mapper(timeline, sourceDuration);
  const std::int64_t length = mapper.sequenceDuration().nanoseconds;
  for (std::int64_t t : {std::int64_t{0}, length / 3, length / 2, length - 1, length}) {
    auto mapped = mapper.mappedTimeForSequenceTime(ProjectTime{t});
    if (mapped && !mapper.mappedTimeForSourceTime(mapped->sourceTime)) fail("a mapped source time does not map back");
    mapper.sourceTimeForSequenceBoundary(ProjectTime{t});
    mapper.nearestSequenceBoundary(ProjectTime{t});
  }
  for (const auto& annotation : timeline.annotations) {
    ProjectTimeRange range{annotation.startTime, annotation.endTime - annotation.startTime};
    mapper.projectedRanges(range);
    mapper.retainsEntireSourceRange(range);
  }
  mapper.sourceRanges({ProjectTime{0}, mapper.sequenceDuration()});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  EditTimeline timeline;
  try {
    timeline = decodeEditTimeline(text);
  } catch (const DecodingError&) {
    return 0;
  } catch (const TimelineValidationError& error) {
    if (error.kind() != TimelineValidationError::Case::duplicateID)
      fail("reading refused a document with another rule");
    return 0;
  }

  EditTimeline again;
  try {
    again = decodeEditTimeline(encodeEditTimeline(timeline));
  } catch (const DecodingError&) {
    fail("a decoded timeline could not be read back");
  }
  if (!(again == timeline)) fail("a decoded timeline changed on writing and reading");

  const bool hasWebcam = size % 2 == 1;
  for (std::int64_t duration : {std::int64_t{0}, std::int64_t{60'000'000'000}, coveringDuration(timeline),
                                std::numeric_limits<std::int64_t>::max()}) {
    exercise(timeline, ProjectTime{duration});
    EditTimeline normal = timeline.normalized(ProjectTime{duration}, hasWebcam);
    exercise(normal, ProjectTime{duration});
    // Lanes are noted by annotation id; reading refuses shared ids, so a second pass keeps them.
    if (!(normal.normalized(ProjectTime{duration}, hasWebcam) == normal)) fail("normalising is not idempotent");
  }
  return 0;
}
