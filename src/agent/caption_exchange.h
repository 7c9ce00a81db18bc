#pragma once

// Captions an agent (or the cloud service) produces outside the program: the job the program
// writes into an exchange folder beside the audio, and the result document written back. Times are
// whole source milliseconds. Everything read from the folder is hostile; a result becomes a
// CaptionDocument only through `captionDocument`, and that only after the job it answers has been
// checked against the project.

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "captions/caption_document.h"
#include "shared/date.h"
#include "shared/json_fwd.h"
#include "shared/media_track_kind.h"
#include "shared/uuid.h"

namespace vumo {

inline constexpr std::string_view captionExchangeDocumentFileName = "captions.json";
inline constexpr std::string_view captionExchangeAudioFileName = "source.wav";
inline constexpr std::uint64_t captionExchangeJobMaximumBytes = 65'536;
inline constexpr std::uint64_t captionExchangeDocumentMaximumBytes = 67'108'864;

// Written by the program; binds a result to one audio export and one state of the timeline.
struct CaptionExchangeJob {
  static constexpr std::int64_t currentProtocolVersion = 1;

  std::int64_t protocolVersion = currentProtocolVersion;
  Uuid id;
  Uuid projectID;
  MediaTrackKind sourceTrack = MediaTrackKind::microphone;
  std::string sourceAudioDigest;                // lower-case hex SHA-256 of the exported WAV bytes
  std::string timelineDigest;                   // of the timeline file when the job was made
  std::int64_t sourceDurationMilliseconds = 0;  // the recording's duration, truncated
  Timestamp createdAt;

  // An import may only use a job of this protocol, for the requested job and project, made from
  // the timeline as it is now; anything else is CaptionValidationError::staleTimeline.
  void verifyCurrent(const Uuid& requestedJobID, const Uuid& currentProjectID,
                     std::string_view currentTimelineDigest) const;

  friend bool operator==(const CaptionExchangeJob&, const CaptionExchangeJob&) = default;
};

struct CaptionExchangeWord {
  std::int64_t startMilliseconds = 0;
  std::int64_t endMilliseconds = 0;
  std::string text;

  friend bool operator==(const CaptionExchangeWord&, const CaptionExchangeWord&) = default;
};

struct CaptionExchangeHighlight {
  std::string text;
  std::optional<std::int64_t> occurrence;  // 1 when absent

  friend bool operator==(const CaptionExchangeHighlight&, const CaptionExchangeHighlight&) = default;
};

struct CaptionExchangeCue {
  std::int64_t startMilliseconds = 0;
  std::int64_t endMilliseconds = 0;
  std::string text;
  std::optional<std::vector<CaptionExchangeWord>> words;
  std::optional<std::vector<CaptionExchangeHighlight>> highlights;

  friend bool operator==(const CaptionExchangeCue&, const CaptionExchangeCue&) = default;
};

// Caption Exchange Schema 1.
struct CaptionExchangeDocument {
  static constexpr std::int64_t currentProtocolVersion = 1;
  // What a result in Chinese is stored as, whatever variant of the tag it came with.
  static constexpr std::string_view simplifiedChineseLanguage = "zh-Hans";
  // Characters that may close a sentence after its final punctuation; a full stop in front of them
  // is removed and they stay.
  static constexpr std::array<std::string_view, 11> terminalClosingCharacters{
      "\"", "'", "\u201D", "\u2019", "\u300D", "\u300F", "\u300B", "\uFF09", ")", "\u3011", "]"};

  std::int64_t protocolVersion = currentProtocolVersion;
  Uuid jobID;
  Uuid projectID;
  std::string sourceAudioDigest;
  std::optional<std::string> language;
  std::vector<CaptionExchangeCue> cues;

  // The document as the project stores it, not yet validated: call `validated` with the source
  // duration. A result for another job, project or audio, or of another protocol, is staleAudio; a
  // time that overflows nanoseconds is invalidCue. Every cue gets a fresh id. `preserving` is the
  // project's current style, so a re-import keeps it; without one the default style is used.
  CaptionDocument captionDocument(const CaptionExchangeJob& job,
                                  const std::optional<CaptionStyle>& preserving = std::nullopt) const;

  // True for "zh", "zh-cn", "zh-sg" and every tag beginning "zh-hans", in any case.
  static bool simplifiesChinese(const std::optional<std::string>& language);
  // For a simplified-Chinese language, `text` in simplified script (ICU "Traditional-Simplified");
  // otherwise, or when the transform gives nothing, `text` unchanged.
  static std::string normalizedScript(std::string_view text, const std::optional<std::string>& language);
  // normalizedScript, trimmed, without a final "。" or single "." (an ellipsis stays), keeping any
  // closing quotes or brackets that followed it.
  static std::string normalizedCueText(std::string_view text, const std::optional<std::string>& language);

  friend bool operator==(const CaptionExchangeDocument&, const CaptionExchangeDocument&) = default;
};

void to_json(Json& j, const CaptionExchangeJob& job);
void from_json(const Json& j, CaptionExchangeJob& job);
void to_json(Json& j, const CaptionExchangeWord& word);
void from_json(const Json& j, CaptionExchangeWord& word);
void to_json(Json& j, const CaptionExchangeHighlight& highlight);
void from_json(const Json& j, CaptionExchangeHighlight& highlight);
void to_json(Json& j, const CaptionExchangeCue& cue);
void from_json(const Json& j, CaptionExchangeCue& cue);
void to_json(Json& j, const CaptionExchangeDocument& document);
void from_json(const Json& j, CaptionExchangeDocument& document);

// Strict readers: malformed JSON, a missing required key or a value of the wrong type (a float for
// an integer included) is a DecodingError. Unknown keys are passed over.
CaptionExchangeJob decodeCaptionExchangeJob(std::string_view bytes);
CaptionExchangeDocument decodeCaptionExchangeDocument(std::string_view bytes);

// The files' text: pretty printed, sorted keys, absent optionals left out, dates in ISO 8601. Text
// that is not UTF-8 is UnicodeTextError::notUTF8.
std::string encodeCaptionExchangeJob(const CaptionExchangeJob& job);
std::string encodeCaptionExchangeDocument(const CaptionExchangeDocument& document);

// `job.json` and `captions.json` of an exchange folder through readExchangeData: a path or file of
// the wrong kind is invalidDocument, more than 64 KiB or 64 MiB respectively documentTooLarge.
std::string readCaptionExchangeJobData(const std::filesystem::path& path);
std::string readCaptionExchangeDocumentData(const std::filesystem::path& path);

}  // namespace vumo
