#include "captions/caption_document_engine.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "captions/caption_text.h"
#include "shared/checked_math.h"
#include "timeline/timeline_frame_grid.h"

namespace vumo {

namespace {

using EditingCase = CaptionEditingError::Case;

[[noreturn]] void fail(EditingCase kind) { throw CaptionEditingError(kind); }

std::size_t indexOfCue(const CaptionDocument& document, const Uuid& id) {
  for (std::size_t i = 0; i < document.cues.size(); ++i)
    if (document.cues[i].id == id) return i;
  fail(EditingCase::cueNotFound);
}

// Snapping moves a time by at most half a frame, so a time more than a second outside the source
// is out of range either way; refusing it first keeps the grid arithmetic far from overflow.
ProjectTime snappedWithinReach(ProjectTime time, ProjectTime sourceDuration) {
  constexpr std::int64_t reach = 1'000'000'000;
  std::int64_t upper = 0;
  if (time.nanoseconds < -reach || !tryAdd(std::max<std::int64_t>(sourceDuration.nanoseconds, 0), reach, upper) ||
      time.nanoseconds > upper)
    fail(EditingCase::invalidRange);
  return TimelineFrameGrid::nearestBoundary(time);
}

// The common range rule: inside the source and at least one frame long.
void requireValidRange(ProjectTime start, ProjectTime end, ProjectTime sourceDuration) {
  std::int64_t length = 0;
  if (start < ProjectTime::zero() || end > sourceDuration || !trySub(end.nanoseconds, start.nanoseconds, length) ||
      length < TimelineFrameGrid::minimumDuration.nanoseconds)
    fail(EditingCase::invalidRange);
}

// Puts `cue` among `cues` after every cue that starts at or before it, refusing to overlap the
// cue before or after that position. Touching neighbours are fine.
void insertBetweenNeighbors(std::vector<CaptionCue>& cues, CaptionCue cue) {
  std::size_t index = 0;
  while (index < cues.size() && !(cues[index].start > cue.start)) ++index;
  if (index > 0 && cues[index - 1].end > cue.start) fail(EditingCase::overlapsNeighbor);
  if (index < cues.size() && cues[index].start < cue.end) fail(EditingCase::overlapsNeighbor);
  cues.insert(cues.begin() + static_cast<std::ptrdiff_t>(index), std::move(cue));
}

// Takes the cue out, lets `change` retime it, and places it again by the rule of addCue.
template <class Change>
CaptionDocument retimed(const CaptionDocument& document, const Uuid& id, ProjectTime sourceDuration, Change change) {
  CaptionDocument result = document;
  std::size_t index = indexOfCue(result, id);
  CaptionCue cue = std::move(result.cues[index]);
  result.cues.erase(result.cues.begin() + static_cast<std::ptrdiff_t>(index));
  change(cue);
  insertBetweenNeighbors(result.cues, std::move(cue));
  return result.validated(sourceDuration);
}

}  // namespace

CaptionDocument CaptionDocumentEngine::addCue(const CaptionDocument& document, const CaptionCue& cue,
                                              ProjectTime sourceDuration) {
  std::string_view text = trimmedWhitespaceAndNewlines(cue.text);
  if (text.empty()) fail(EditingCase::emptyText);
  ProjectTime start = snappedWithinReach(cue.start, sourceDuration);
  ProjectTime end = snappedWithinReach(cue.end, sourceDuration);
  requireValidRange(start, end, sourceDuration);

  CaptionDocument result = document;
  insertBetweenNeighbors(result.cues, CaptionCue{cue.id, start, end, std::string(text), {}, {}});
  return result.validated(sourceDuration);
}

CaptionDocument CaptionDocumentEngine::moveCue(const CaptionDocument& document, const Uuid& id, ProjectTime start,
                                               ProjectTime sourceDuration) {
  return retimed(document, id, sourceDuration, [&](CaptionCue& cue) {
    ProjectTime snapped = snappedWithinReach(start, sourceDuration);
    std::int64_t length = 0, end = 0, delta = 0;
    if (!trySub(cue.end.nanoseconds, cue.start.nanoseconds, length) || !tryAdd(snapped.nanoseconds, length, end) ||
        !trySub(snapped.nanoseconds, cue.start.nanoseconds, delta))
      fail(EditingCase::invalidRange);
    requireValidRange(snapped, {end}, sourceDuration);
    for (auto& word : cue.words) {
      if (!tryAdd(word.start.nanoseconds, delta, word.start.nanoseconds) ||
          !tryAdd(word.end.nanoseconds, delta, word.end.nanoseconds))
        fail(EditingCase::invalidRange);
    }
    cue.start = snapped;
    cue.end = {end};
  });
}

CaptionDocument CaptionDocumentEngine::trimStart(const CaptionDocument& document, const Uuid& id, ProjectTime start,
                                                 ProjectTime sourceDuration) {
  return retimed(document, id, sourceDuration, [&](CaptionCue& cue) {
    ProjectTime snapped = snappedWithinReach(start, sourceDuration);
    requireValidRange(snapped, cue.end, sourceDuration);
    std::erase_if(cue.words, [&](const CaptionWord& word) { return word.start < snapped; });
    cue.start = snapped;
  });
}

CaptionDocument CaptionDocumentEngine::trimEnd(const CaptionDocument& document, const Uuid& id, ProjectTime end,
                                               ProjectTime sourceDuration) {
  return retimed(document, id, sourceDuration, [&](CaptionCue& cue) {
    ProjectTime snapped = snappedWithinReach(end, sourceDuration);
    requireValidRange(cue.start, snapped, sourceDuration);
    std::erase_if(cue.words, [&](const CaptionWord& word) { return word.end > snapped; });
    cue.end = snapped;
  });
}

CaptionDocument CaptionDocumentEngine::updateText(const CaptionDocument& document, const Uuid& id,
                                                  std::string_view text, ProjectTime sourceDuration) {
  std::string_view trimmed = trimmedWhitespaceAndNewlines(text);
  if (trimmed.empty()) fail(EditingCase::emptyText);
  CaptionDocument result = document;
  CaptionCue& cue = result.cues[indexOfCue(result, id)];
  if (cue.text != trimmed) {
    cue.words.clear();
    cue.highlights.clear();
    cue.text = std::string(trimmed);
  }
  return result.validated(sourceDuration);
}

CaptionDocument CaptionDocumentEngine::addHighlight(const CaptionDocument& document, const Uuid& id,
                                                    const CaptionHighlight& highlight, ProjectTime sourceDuration) {
  CaptionDocument result = document;
  result.cues[indexOfCue(result, id)].highlights.push_back(highlight);
  try {
    return result.validated(sourceDuration);
  } catch (const CaptionValidationError& error) {
    if (error.kind() == CaptionValidationError::Case::invalidHighlight) fail(EditingCase::invalidHighlight);
    throw;
  }
}

CaptionDocument CaptionDocumentEngine::clearHighlights(const CaptionDocument& document, const Uuid& id,
                                                       ProjectTime sourceDuration) {
  CaptionDocument result = document;
  result.cues[indexOfCue(result, id)].highlights.clear();
  return result.validated(sourceDuration);
}

CaptionDocument CaptionDocumentEngine::updateStyle(const CaptionDocument& document, const CaptionStyle& style,
                                                   ProjectTime sourceDuration) {
  CaptionDocument result = document;
  result.style = style;
  return result.validated(sourceDuration);
}

CaptionDocument CaptionDocumentEngine::removeCue(const CaptionDocument& document, const Uuid& id,
                                                 ProjectTime sourceDuration) {
  CaptionDocument result = document;
  result.cues.erase(result.cues.begin() + static_cast<std::ptrdiff_t>(indexOfCue(result, id)));
  return result.validated(sourceDuration);
}

}  // namespace vumo
