#include "agent/caption_exchange.h"

#include <fmt/format.h>
#include <unicode/translit.h>
#include <unicode/unistr.h>
#include <unicode/utypes.h>

#include <algorithm>
#include <memory>

#include "agent/agent_exchange.h"
#include "captions/caption_text.h"
#include "shared/checked_math.h"
#include "shared/json.h"

namespace vumo {

namespace {

using ValidationCase = CaptionValidationError::Case;

constexpr std::int64_t nanosecondsPerMillisecond = 1'000'000;

ProjectTime nanosecondsOf(std::int64_t milliseconds) {
  std::int64_t nanoseconds = 0;
  if (!tryMul(milliseconds, nanosecondsPerMillisecond, nanoseconds))
    throw CaptionValidationError(ValidationCase::invalidCue);
  return ProjectTime{nanoseconds};
}

std::string lowercasedASCII(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

// ICU's transliterators are not safe to share between threads; each thread opens its own once.
// Null when ICU cannot provide the transform, in which case text stays as it is.
const icu::Transliterator* traditionalToSimplified() {
  thread_local std::unique_ptr<icu::Transliterator> transliterator = [] {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::Transliterator> created(
        icu::Transliterator::createInstance("Traditional-Simplified", UTRANS_FORWARD, status));
    if (U_FAILURE(status)) created.reset();
    return created;
  }();
  return transliterator.get();
}

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

std::optional<std::string_view> closingCharacterAtEnd(std::string_view text) {
  for (std::string_view closing : CaptionExchangeDocument::terminalClosingCharacters)
    if (endsWith(text, closing)) return closing;
  return std::nullopt;
}

template <class T>
std::optional<std::vector<T>> optionalArray(const Json& object, std::string_view key) {
  const Json* found = json::findKey(object, key);
  if (found == nullptr || found->is_null()) return std::nullopt;
  json::requireArray(*found, key);
  std::vector<T> values;
  values.reserve(found->size());
  for (const Json& element : *found) values.push_back(json::as<T>(element, key));
  return values;
}

std::string encodedOrNotUTF8(const Json& value) {
  try {
    return encodeDocument(value);
  } catch (const nlohmann::json::exception&) {
    throw UnicodeTextError(UnicodeTextError::Case::notUTF8);
  }
}

}  // namespace

void CaptionExchangeJob::verifyCurrent(const Uuid& requestedJobID, const Uuid& currentProjectID,
                                       std::string_view currentTimelineDigest) const {
  if (protocolVersion != currentProtocolVersion || id != requestedJobID || projectID != currentProjectID ||
      timelineDigest != currentTimelineDigest)
    throw CaptionValidationError(ValidationCase::staleTimeline);
}

// ---------------------------------------------------------------------------------------------
// Normalisation

bool CaptionExchangeDocument::simplifiesChinese(const std::optional<std::string>& language) {
  if (!language) return false;
  std::string tag = lowercasedASCII(*language);
  return tag == "zh" || tag == "zh-cn" || tag == "zh-sg" || tag.starts_with("zh-hans");
}

std::string CaptionExchangeDocument::normalizedScript(std::string_view text,
                                                      const std::optional<std::string>& language) {
  // Ill-formed text would come back with replacement characters; it is left for validation to
  // refuse as it stands.
  if (!simplifiesChinese(language) || text.empty() || !isWellFormedUtf8(text)) return std::string(text);
  const icu::Transliterator* transliterator = traditionalToSimplified();
  if (transliterator == nullptr) return std::string(text);
  icu::UnicodeString unicode =
      icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
  transliterator->transliterate(unicode);
  std::string simplified;
  unicode.toUTF8String(simplified);
  return simplified.empty() ? std::string(text) : simplified;
}

std::string CaptionExchangeDocument::normalizedCueText(std::string_view text,
                                                       const std::optional<std::string>& language) {
  std::string script = normalizedScript(text, language);
  std::string_view rest = trimmedWhitespaceAndNewlines(script);

  std::size_t closingStart = rest.size();
  while (closingStart > 0) {
    auto closing = closingCharacterAtEnd(rest.substr(0, closingStart));
    if (!closing || closing->size() == closingStart) break;
    closingStart -= closing->size();
  }
  std::string_view closings = rest.substr(closingStart);
  rest = rest.substr(0, closingStart);

  if (endsWith(rest, "\u3002")) {
    rest.remove_suffix(std::string_view("\u3002").size());
  } else if (endsWith(rest, ".") && !endsWith(rest, "...")) {
    rest.remove_suffix(1);
  }
  std::string result(rest);
  result += closings;
  return result;
}

// ---------------------------------------------------------------------------------------------
// Conversion

CaptionDocument CaptionExchangeDocument::captionDocument(const CaptionExchangeJob& job,
                                                         const std::optional<CaptionStyle>& preserving) const {
  if (protocolVersion != currentProtocolVersion || jobID != job.id || projectID != job.projectID ||
      sourceAudioDigest != job.sourceAudioDigest)
    throw CaptionValidationError(ValidationCase::staleAudio);

  CaptionDocument document;
  document.schemaVersion = CaptionDocument::currentSchemaVersion;
  document.sourceTrack = job.sourceTrack;
  document.sourceAudioDigest = job.sourceAudioDigest;
  document.basedOnTimelineDigest = job.timelineDigest;
  document.language = simplifiesChinese(language) ? std::optional<std::string>(simplifiedChineseLanguage) : language;
  document.style = preserving.value_or(CaptionStyle::defaults());

  document.cues.reserve(cues.size());
  for (const CaptionExchangeCue& exchangeCue : cues) {
    CaptionCue cue;
    cue.id = Uuid::random();
    cue.start = nanosecondsOf(exchangeCue.startMilliseconds);
    cue.end = nanosecondsOf(exchangeCue.endMilliseconds);
    cue.text = normalizedCueText(exchangeCue.text, language);
    if (exchangeCue.words) {
      cue.words.reserve(exchangeCue.words->size());
      for (const CaptionExchangeWord& word : *exchangeCue.words)
        cue.words.push_back({nanosecondsOf(word.startMilliseconds), nanosecondsOf(word.endMilliseconds),
                             normalizedScript(word.text, language)});
    }
    if (exchangeCue.highlights) {
      cue.highlights.reserve(exchangeCue.highlights->size());
      for (const CaptionExchangeHighlight& highlight : *exchangeCue.highlights)
        cue.highlights.push_back({normalizedScript(highlight.text, language), highlight.occurrence.value_or(1)});
    }
    document.cues.push_back(std::move(cue));
  }
  return document;
}

// ---------------------------------------------------------------------------------------------
// JSON

void to_json(Json& j, const CaptionExchangeJob& job) {
  j = Json::object();
  j["protocolVersion"] = job.protocolVersion;
  j["id"] = job.id;
  j["projectID"] = job.projectID;
  j["sourceTrack"] = job.sourceTrack;
  j["sourceAudioDigest"] = job.sourceAudioDigest;
  j["timelineDigest"] = job.timelineDigest;
  j["sourceDurationMilliseconds"] = job.sourceDurationMilliseconds;
  j["createdAt"] = job.createdAt;
}

void from_json(const Json& j, CaptionExchangeJob& job) {
  json::requireObject(j, "job");
  job.protocolVersion = json::required<std::int64_t>(j, "protocolVersion");
  job.id = json::required<Uuid>(j, "id");
  job.projectID = json::required<Uuid>(j, "projectID");
  job.sourceTrack = json::required<MediaTrackKind>(j, "sourceTrack");
  job.sourceAudioDigest = json::required<std::string>(j, "sourceAudioDigest");
  job.timelineDigest = json::required<std::string>(j, "timelineDigest");
  job.sourceDurationMilliseconds = json::required<std::int64_t>(j, "sourceDurationMilliseconds");
  job.createdAt = json::required<Timestamp>(j, "createdAt");
}

void to_json(Json& j, const CaptionExchangeWord& word) {
  j = Json::object();
  j["startMilliseconds"] = word.startMilliseconds;
  j["endMilliseconds"] = word.endMilliseconds;
  j["text"] = word.text;
}

void from_json(const Json& j, CaptionExchangeWord& word) {
  json::requireObject(j, "words");
  word.startMilliseconds = json::required<std::int64_t>(j, "startMilliseconds");
  word.endMilliseconds = json::required<std::int64_t>(j, "endMilliseconds");
  word.text = json::required<std::string>(j, "text");
}

void to_json(Json& j, const CaptionExchangeHighlight& highlight) {
  j = Json::object();
  j["text"] = highlight.text;
  json::setOptional(j, "occurrence", highlight.occurrence);
}

void from_json(const Json& j, CaptionExchangeHighlight& highlight) {
  json::requireObject(j, "highlights");
  highlight.text = json::required<std::string>(j, "text");
  highlight.occurrence = json::optional<std::int64_t>(j, "occurrence");
}

void to_json(Json& j, const CaptionExchangeCue& cue) {
  j = Json::object();
  j["startMilliseconds"] = cue.startMilliseconds;
  j["endMilliseconds"] = cue.endMilliseconds;
  j["text"] = cue.text;
  json::setOptional(j, "words", cue.words);
  json::setOptional(j, "highlights", cue.highlights);
}

void from_json(const Json& j, CaptionExchangeCue& cue) {
  json::requireObject(j, "cues");
  cue.startMilliseconds = json::required<std::int64_t>(j, "startMilliseconds");
  cue.endMilliseconds = json::required<std::int64_t>(j, "endMilliseconds");
  cue.text = json::required<std::string>(j, "text");
  cue.words = optionalArray<CaptionExchangeWord>(j, "words");
  cue.highlights = optionalArray<CaptionExchangeHighlight>(j, "highlights");
}

void to_json(Json& j, const CaptionExchangeDocument& document) {
  j = Json::object();
  j["protocolVersion"] = document.protocolVersion;
  j["jobID"] = document.jobID;
  j["projectID"] = document.projectID;
  j["sourceAudioDigest"] = document.sourceAudioDigest;
  json::setOptional(j, "language", document.language);
  j["cues"] = document.cues;
}

void from_json(const Json& j, CaptionExchangeDocument& document) {
  json::requireObject(j, "caption exchange document");
  document.protocolVersion = json::required<std::int64_t>(j, "protocolVersion");
  document.jobID = json::required<Uuid>(j, "jobID");
  document.projectID = json::required<Uuid>(j, "projectID");
  document.sourceAudioDigest = json::required<std::string>(j, "sourceAudioDigest");
  document.language = json::optional<std::string>(j, "language");

  const Json& cues = json::requireKey(j, "cues");
  json::requireArray(cues, "cues");
  document.cues.clear();
  document.cues.reserve(cues.size());
  for (std::size_t index = 0; index < cues.size(); ++index) {
    try {
      document.cues.push_back(json::as<CaptionExchangeCue>(cues[index], "cues"));
    } catch (const DecodingError& error) {
      // An agent's file can be long: say which cue is wrong.
      throw DecodingError(fmt::format("Caption exchange cue {}: {}", index, error.what()));
    }
  }
}

CaptionExchangeJob decodeCaptionExchangeJob(std::string_view bytes) {
  return json::as<CaptionExchangeJob>(parseJson(bytes), "job");
}

CaptionExchangeDocument decodeCaptionExchangeDocument(std::string_view bytes) {
  return json::as<CaptionExchangeDocument>(parseJson(bytes), "caption exchange document");
}

std::string encodeCaptionExchangeJob(const CaptionExchangeJob& job) { return encodedOrNotUTF8(Json(job)); }

std::string encodeCaptionExchangeDocument(const CaptionExchangeDocument& document) {
  return encodedOrNotUTF8(Json(document));
}

std::string readCaptionExchangeJobData(const std::filesystem::path& path) {
  return readExchangeData(path, captionExchangeJobMaximumBytes, EditPlanValidationError::Case::documentTooLarge);
}

std::string readCaptionExchangeDocumentData(const std::filesystem::path& path) {
  return readExchangeData(path, captionExchangeDocumentMaximumBytes, EditPlanValidationError::Case::documentTooLarge);
}

}  // namespace vumo
