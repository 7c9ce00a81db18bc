#include "captions/caption_document.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <unordered_set>

#include "captions/caption_text.h"
#include "shared/json.h"
#include "shared/name_table.h"
#include "timeline/grapheme_clusters.h"

namespace vumo {

namespace {

using ValidationCase = CaptionValidationError::Case;

// Values are kept to two decimals so that a slider position and the stored file agree exactly.
double clampedToHundredths(double value, double lower, double upper, double fallback) {
  if (std::isnan(value)) return fallback;
  double rounded = std::round(std::clamp(value, lower, upper) * 100.0) / 100.0;
  return rounded + 0.0;  // no negative zero in the file
}

// Literal search that stays linear however the needle repeats (Knuth-Morris-Pratt), so a hostile
// document cannot make validation quadratic in the length of a cue.
class LiteralSearcher {
 public:
  explicit LiteralSearcher(std::string_view needle) : needle_(needle), fallback_(needle.size(), 0) {
    std::size_t matched = 0;
    for (std::size_t i = 1; i < needle_.size(); ++i) {
      while (matched > 0 && needle_[i] != needle_[matched]) matched = fallback_[matched - 1];
      if (needle_[i] == needle_[matched]) ++matched;
      fallback_[i] = matched;
    }
  }

  // Byte offset of the first match that starts at or after `from`.
  std::optional<std::size_t> find(std::string_view haystack, std::size_t from) const {
    if (needle_.empty() || from > haystack.size() || haystack.size() - from < needle_.size()) return std::nullopt;
    std::size_t matched = 0;
    for (std::size_t i = from; i < haystack.size(); ++i) {
      while (matched > 0 && haystack[i] != needle_[matched]) matched = fallback_[matched - 1];
      if (haystack[i] == needle_[matched]) ++matched;
      if (matched == needle_.size()) return i + 1 - needle_.size();
    }
    return std::nullopt;
  }

 private:
  std::string_view needle_;
  std::vector<std::size_t> fallback_;
};

[[noreturn]] void fail(ValidationCase kind) { throw CaptionValidationError(kind); }

// Reads an array member that old documents may lack; a missing or null key is empty.
template <class T>
std::vector<T> optionalArray(const Json& object, std::string_view key) {
  const Json* found = json::findKey(object, key);
  if (found == nullptr || found->is_null()) return {};
  json::requireArray(*found, key);
  std::vector<T> values;
  values.reserve(found->size());
  for (const Json& element : *found) values.push_back(json::as<T>(element, key));
  return values;
}

}  // namespace

CaptionStyle CaptionStyle::normalized() const {
  CaptionStyle style = *this;
  style.maximumLines = std::clamp<std::int64_t>(maximumLines, 1, 2);
  style.fontScale = clampedToHundredths(fontScale, 0.6, 1.2, 1.0);
  style.bottomPosition = clampedToHundredths(bottomPosition, 0.0, 1.0, 0.08);
  return style;
}

const CaptionCue* CaptionDocument::findCue(const Uuid& id) const {
  for (const auto& cue : cues)
    if (cue.id == id) return &cue;
  return nullptr;
}

std::vector<CaptionHighlight> validatedHighlights(const std::vector<CaptionHighlight>& highlights,
                                                  std::string_view text) {
  if (highlights.size() > CaptionDocument::maximumHighlightCount) fail(ValidationCase::invalidHighlight);

  struct Located {
    std::size_t start;
    std::size_t end;
    const CaptionHighlight* highlight;
  };
  std::vector<Located> located;
  located.reserve(highlights.size());

  for (const auto& highlight : highlights) {
    const std::string& needle = highlight.text;
    if (needle.empty() || trimmedWhitespaceAndNewlines(needle) != needle || !isWellFormedUtf8(needle) ||
        !containsAlphanumericScalar(needle) || highlight.occurrence < 1)
      fail(ValidationCase::invalidHighlight);

    // Occurrence k is searched from the end of match k - 1, so occurrences never overlap.
    LiteralSearcher searcher(needle);
    std::size_t from = 0;
    std::size_t matchStart = 0;
    for (std::int64_t k = 1; k <= highlight.occurrence; ++k) {
      auto match = searcher.find(text, from);
      if (!match) fail(ValidationCase::invalidHighlight);
      matchStart = *match;
      from = matchStart + needle.size();
    }
    // Emphasising the whole sentence is no emphasis at all.
    if (matchStart == 0 && needle.size() == text.size()) fail(ValidationCase::invalidHighlight);
    located.push_back({matchStart, matchStart + needle.size(), &highlight});
  }

  std::stable_sort(located.begin(), located.end(),
                   [](const Located& a, const Located& b) { return a.start < b.start; });
  for (std::size_t i = 1; i < located.size(); ++i)
    if (located[i].start < located[i - 1].end) fail(ValidationCase::invalidHighlight);

  std::vector<CaptionHighlight> ordered;
  ordered.reserve(located.size());
  for (const auto& entry : located) ordered.push_back(*entry.highlight);
  return ordered;
}

CaptionDocument CaptionDocument::validated(ProjectTime sourceDuration) const {
  if (schemaVersion != currentSchemaVersion) fail(ValidationCase::unsupportedSchema);
  if (sourceTrack != MediaTrackKind::systemAudio && sourceTrack != MediaTrackKind::microphone)
    fail(ValidationCase::invalidTrack);
  if (cues.size() > maximumCueCount) fail(ValidationCase::tooManyCues);

  CaptionDocument result = *this;
  result.style = style.normalized();

  GraphemeClusterCounter counter;
  std::unordered_set<Uuid> seenIds;
  seenIds.reserve(result.cues.size());
  ProjectTime previousEnd = ProjectTime::zero();

  for (auto& cue : result.cues) {
    std::string_view trimmed = trimmedWhitespaceAndNewlines(cue.text);
    if (!seenIds.insert(cue.id).second || trimmed.empty() || !isWellFormedUtf8(trimmed) ||
        counter.exceeds(trimmed, maximumTextLength))
      fail(ValidationCase::invalidCue);
    cue.text = std::string(trimmed);

    // Cues may touch but never overlap, and stay inside the recording.
    if (cue.start < ProjectTime::zero() || !(cue.start < cue.end) || cue.end > sourceDuration ||
        cue.start < previousEnd)
      fail(ValidationCase::invalidCue);

    ProjectTime wordEnd = cue.start;
    for (auto& word : cue.words) {
      std::string_view wordText = trimmedWhitespaceAndNewlines(word.text);
      if (wordText.empty() || !isWellFormedUtf8(wordText) || word.start < cue.start || !(word.start < word.end) ||
          word.end > cue.end || word.start < wordEnd)
        fail(ValidationCase::invalidWord);
      word.text = std::string(wordText);
      wordEnd = word.end;
    }

    cue.highlights = validatedHighlights(cue.highlights, cue.text);
    previousEnd = cue.end;
  }
  return result;
}

void to_json(Json& j, const CaptionStyle& style) {
  j = Json::object();
  j["isEnabled"] = style.isEnabled;
  j["maximumLines"] = style.maximumLines;
  j["appearance"] = style.appearance;
  j["fontScale"] = style.fontScale;
  j["bottomPosition"] = style.bottomPosition;
}

void from_json(const Json& j, CaptionStyle& style) {
  json::requireObject(j, "style");
  const CaptionStyle defaults;
  style.isEnabled = json::required<bool>(j, "isEnabled");
  style.maximumLines = json::required<std::int64_t>(j, "maximumLines");
  style.appearance = json::valueOr<CaptionAppearance>(j, "appearance", defaults.appearance);
  style.fontScale = json::valueOr<double>(j, "fontScale", defaults.fontScale);
  style.bottomPosition = json::valueOr<double>(j, "bottomPosition", defaults.bottomPosition);
}

void to_json(Json& j, const CaptionWord& word) {
  j = Json::object();
  j["start"] = word.start;
  j["end"] = word.end;
  j["text"] = word.text;
}

void from_json(const Json& j, CaptionWord& word) {
  json::requireObject(j, "words");
  word.start = json::required<ProjectTime>(j, "start");
  word.end = json::required<ProjectTime>(j, "end");
  word.text = json::required<std::string>(j, "text");
}

void to_json(Json& j, const CaptionHighlight& highlight) {
  j = Json::object();
  j["text"] = highlight.text;
  j["occurrence"] = highlight.occurrence;
}

void from_json(const Json& j, CaptionHighlight& highlight) {
  json::requireObject(j, "highlights");
  highlight.text = json::required<std::string>(j, "text");
  highlight.occurrence = json::required<std::int64_t>(j, "occurrence");
}

void to_json(Json& j, const CaptionCue& cue) {
  j = Json::object();
  j["id"] = cue.id;
  j["start"] = cue.start;
  j["end"] = cue.end;
  j["text"] = cue.text;
  j["words"] = cue.words;
  j["highlights"] = cue.highlights;
}

void from_json(const Json& j, CaptionCue& cue) {
  json::requireObject(j, "cues");
  cue.id = json::required<Uuid>(j, "id");
  cue.start = json::required<ProjectTime>(j, "start");
  cue.end = json::required<ProjectTime>(j, "end");
  cue.text = json::required<std::string>(j, "text");
  cue.words = optionalArray<CaptionWord>(j, "words");
  cue.highlights = optionalArray<CaptionHighlight>(j, "highlights");
}

void to_json(Json& j, const CaptionDocument& document) {
  j = Json::object();
  j["schemaVersion"] = document.schemaVersion;
  j["sourceTrack"] = document.sourceTrack;
  j["sourceAudioDigest"] = document.sourceAudioDigest;
  j["basedOnTimelineDigest"] = document.basedOnTimelineDigest;
  json::setOptional(j, "language", document.language);
  j["style"] = document.style;
  j["cues"] = document.cues;
}

void from_json(const Json& j, CaptionDocument& document) {
  json::requireObject(j, "caption document");
  document.schemaVersion = json::required<std::int64_t>(j, "schemaVersion");
  document.sourceTrack = json::required<MediaTrackKind>(j, "sourceTrack");
  document.sourceAudioDigest = json::required<std::string>(j, "sourceAudioDigest");
  document.basedOnTimelineDigest = json::required<std::string>(j, "basedOnTimelineDigest");
  document.language = json::optional<std::string>(j, "language");
  document.style = json::required<CaptionStyle>(j, "style");

  const Json& cues = json::requireKey(j, "cues");
  json::requireArray(cues, "cues");
  document.cues.clear();
  document.cues.reserve(cues.size());
  for (std::size_t index = 0; index < cues.size(); ++index) {
    try {
      document.cues.push_back(json::as<CaptionCue>(cues[index], "cues"));
    } catch (const DecodingError& error) {
      // Say which cue, so a person or agent can find it in a long file.
      throw DecodingError(fmt::format("Caption cue {}: {}", index, error.what()));
    }
  }
}

CaptionDocument decodeCaptionDocument(std::string_view jsonText) {
  Json parsed = parseJson(jsonText);
  return json::as<CaptionDocument>(parsed, "");
}

std::string encodeCaptionDocument(const CaptionDocument& document) {
  try {
    return encodeDocument(Json(document));
  } catch (const nlohmann::json::exception&) {
    // Only text that is not UTF-8 can fail here, and only when it was built in memory.
    throw UnicodeTextError(UnicodeTextError::Case::notUTF8);
  }
}

}  // namespace vumo
