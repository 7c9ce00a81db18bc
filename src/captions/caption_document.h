#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captions/caption_errors.h"
#include "shared/json_fwd.h"
#include "shared/media_track_kind.h"
#include "shared/name_table.h"
#include "shared/project_time.h"
#include "shared/uuid.h"

namespace vumo {

// How caption text is drawn over the video.
enum class CaptionAppearance { whiteOnBlack, whiteWithBlackOutline, blackWithWhiteOutline };

template <>
struct EnumNames<CaptionAppearance> {
  static constexpr std::string_view typeName = "caption appearance";
  static constexpr NameTable<CaptionAppearance, 3> table{{
      {CaptionAppearance::whiteOnBlack, "white-on-black"},
      {CaptionAppearance::whiteWithBlackOutline, "white-black-outline"},
      {CaptionAppearance::blackWithWhiteOutline, "black-white-outline"},
  }};
};

// The one global style of a project's captions. The member initialisers are the defaults, which
// are also what a document written before a key existed reads as.
struct CaptionStyle {
  bool isEnabled = true;
  std::int64_t maximumLines = 2;  // normal form 1...2
  CaptionAppearance appearance = CaptionAppearance::whiteOnBlack;
  double fontScale = 1.0;        // normal form 0.6...1.2, two decimals
  double bottomPosition = 0.08;  // share of the frame height; normal form 0.0...1.0, two decimals

  static CaptionStyle defaults() { return {}; }

  // Clamped and rounded as the renderer expects it. Never fails: a value that is not a number at
  // all (only possible in memory) falls back to the default.
  CaptionStyle normalized() const;

  friend bool operator==(const CaptionStyle&, const CaptionStyle&) = default;
};

// A timed word inside a cue, in source time.
struct CaptionWord {
  ProjectTime start;
  ProjectTime end;
  std::string text;

  friend bool operator==(const CaptionWord&, const CaptionWord&) = default;
};

// An emphasised run of a cue's text: the `occurrence`-th appearance of `text`, counted from the
// left without overlap, starting at 1.
struct CaptionHighlight {
  std::string text;
  std::int64_t occurrence = 1;

  friend bool operator==(const CaptionHighlight&, const CaptionHighlight&) = default;
};

// One caption, shown while source time lies in [start, end).
struct CaptionCue {
  Uuid id;
  ProjectTime start;
  ProjectTime end;
  std::string text;
  std::vector<CaptionWord> words;
  std::vector<CaptionHighlight> highlights;

  friend bool operator==(const CaptionCue&, const CaptionCue&) = default;
};

// A project's captions (edits/captions.json). Cues are stored in source time, so cutting or
// retiming the timeline never rewrites them; a cue in removed material simply never plays.
struct CaptionDocument {
  static constexpr std::int64_t currentSchemaVersion = 1;
  static constexpr std::size_t maximumCueCount = 100'000;
  static constexpr std::size_t maximumTextLength = 2'000;  // grapheme clusters
  static constexpr std::size_t maximumHighlightCount = 8;

  std::int64_t schemaVersion = currentSchemaVersion;
  MediaTrackKind sourceTrack = MediaTrackKind::microphone;
  std::string sourceAudioDigest;      // lower-case hex SHA-256 of the caption audio
  std::string basedOnTimelineDigest;  // timeline digest when the captions were made
  std::optional<std::string> language;
  CaptionStyle style;
  std::vector<CaptionCue> cues;  // sorted by start, not overlapping

  // The document in its normal form (trimmed texts and words, highlights in text order, style
  // clamped), or CaptionValidationError for the first problem found. Everything that changes a
  // document passes through here; the receiver is never modified.
  CaptionDocument validated(ProjectTime sourceDuration) const;

  // Linear search; documents carry no index.
  const CaptionCue* findCue(const Uuid& id) const;

  friend bool operator==(const CaptionDocument&, const CaptionDocument&) = default;
};

// Checks the highlights of one cue against its already trimmed text and returns them ordered by
// their position in the text. Fails with CaptionValidationError::Case::invalidHighlight.
std::vector<CaptionHighlight> validatedHighlights(const std::vector<CaptionHighlight>& highlights,
                                                  std::string_view text);

// Reads a caption document. Malformed JSON, a missing required key or a value of the wrong type is
// a DecodingError. Decoding does not validate: call `validated` with the source duration.
CaptionDocument decodeCaptionDocument(std::string_view jsonText);

// The document's file text: pretty printed, sorted keys, absent optionals left out.
std::string encodeCaptionDocument(const CaptionDocument& document);

void to_json(Json& j, const CaptionStyle& style);
void from_json(const Json& j, CaptionStyle& style);
void to_json(Json& j, const CaptionWord& word);
void from_json(const Json& j, CaptionWord& word);
void to_json(Json& j, const CaptionHighlight& highlight);
void from_json(const Json& j, CaptionHighlight& highlight);
void to_json(Json& j, const CaptionCue& cue);
void from_json(const Json& j, CaptionCue& cue);
void to_json(Json& j, const CaptionDocument& document);
void from_json(const Json& j, CaptionDocument& document);

}  // namespace vumo
