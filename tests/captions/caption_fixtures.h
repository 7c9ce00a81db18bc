#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "support/builders.h"

namespace vumo::testing {

// Deterministic ids, so failures print the same every run.
inline Uuid cueId(int number) {
  Uuid id;
  id.bytes[13] = static_cast<std::uint8_t>(number >> 16);
  id.bytes[14] = static_cast<std::uint8_t>(number >> 8);
  id.bytes[15] = static_cast<std::uint8_t>(number);
  id.bytes[6] = 0x40;  // version 4, variant 1: an ordinary random-looking UUID
  id.bytes[8] = 0x80;
  return id;
}

inline CaptionCue makeCue(int number, std::int64_t startMs, std::int64_t endMs, std::string text,
                          std::vector<CaptionWord> words = {}, std::vector<CaptionHighlight> highlights = {}) {
  return CaptionCue{cueId(number), ms(startMs), ms(endMs), std::move(text), std::move(words), std::move(highlights)};
}

inline CaptionWord makeWord(std::int64_t startMs, std::int64_t endMs, std::string text) {
  return CaptionWord{ms(startMs), ms(endMs), std::move(text)};
}

inline CaptionDocument makeDocument(std::vector<CaptionCue> cues) {
  CaptionDocument document;
  document.sourceTrack = MediaTrackKind::microphone;
  document.sourceAudioDigest = std::string(64, 'a');
  document.basedOnTimelineDigest = std::string(64, 'b');
  document.language = "en";
  document.cues = std::move(cues);
  return document;
}

// One minute of recording is the source in most tests.
inline const ProjectTime kSourceDuration = ProjectTime::fromMilliseconds(60'000);

}  // namespace vumo::testing
