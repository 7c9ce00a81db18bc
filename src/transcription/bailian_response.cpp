#include "transcription/bailian_response.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <unordered_set>

#include "captions/caption_text.h"
#include "shared/json.h"
#include "transcription/transcription_errors.h"

namespace vumo {

namespace {

const Json* member(const Json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  return json::findKey(object, key);
}

const Json* memberOfType(const Json& object, std::string_view key, Json::value_t type) {
  const Json* found = member(object, key);
  return found != nullptr && found->type() == type ? found : nullptr;
}

// The first key of `keys` that holds a number. Numbers beyond what milliseconds in 64 bits can
// hold count as absent.
std::optional<double> firstNumber(const Json& object, std::initializer_list<std::string_view> keys) {
  for (std::string_view key : keys) {
    const Json* found = member(object, key);
    if (found == nullptr || !found->is_number()) continue;
    double value = found->get<double>();
    if (!std::isfinite(value) || std::fabs(value) >= 9.0e18) return std::nullopt;
    return value;
  }
  return std::nullopt;
}

std::optional<std::string> firstText(const Json& object, std::initializer_list<std::string_view> keys) {
  for (std::string_view key : keys) {
    const Json* found = member(object, key);
    if (found == nullptr || !found->is_string()) continue;
    std::string_view trimmed = trimmedWhitespaceAndNewlines(found->get_ref<const std::string&>());
    if (trimmed.empty()) return std::nullopt;
    return std::string(trimmed);
  }
  return std::nullopt;
}

// std::llround rounds halves away from zero.
std::int64_t roundedMilliseconds(double value) { return static_cast<std::int64_t>(std::llround(value)); }

struct TimedText {
  std::int64_t start;
  std::int64_t end;
  std::string text;
};

std::optional<TimedText> timedText(const Json& object, std::initializer_list<std::string_view> textKeys) {
  if (!object.is_object()) return std::nullopt;
  auto start = firstNumber(object, {"start", "start_time", "begin_time"});
  auto end = firstNumber(object, {"end", "end_time"});
  if (!start || !end || !(*start < *end)) return std::nullopt;
  auto text = firstText(object, textKeys);
  if (!text) return std::nullopt;
  return TimedText{roundedMilliseconds(*start), roundedMilliseconds(*end), std::move(*text)};
}

std::vector<const Json*> sentenceObjects(const Json& message) {
  const Json* output = nullptr;
  if (const Json* payload = member(message, "payload"))
    output = memberOfType(*payload, "output", Json::value_t::object);
  if (output == nullptr) output = member(message, "output");
  for (const Json* list : {memberOfType(message, "segments", Json::value_t::array),
                           memberOfType(message, "sentences", Json::value_t::array),
                           output ? memberOfType(*output, "sentences", Json::value_t::array) : nullptr,
                           output ? memberOfType(*output, "sentence", Json::value_t::array) : nullptr}) {
    if (list == nullptr) continue;
    std::vector<const Json*> sentences;
    for (const Json& item : *list) sentences.push_back(&item);
    return sentences;
  }
  if (output != nullptr)
    if (const Json* single = memberOfType(*output, "sentence", Json::value_t::object)) return {single};
  return {};
}

}  // namespace

std::vector<CaptionExchangeCue> parseBailianCues(const Json& message) {
  std::vector<CaptionExchangeCue> cues;
  for (const Json* sentence : sentenceObjects(message)) {
    auto timed = timedText(*sentence, {"text", "sentence"});
    if (!timed) continue;
    CaptionExchangeCue cue{timed->start, timed->end, std::move(timed->text), std::nullopt, std::nullopt};
    if (const Json* words = member(*sentence, "words")) {
      cue.words.emplace();
      if (words->is_array())
        for (const Json& word : *words)
          if (auto timedWord = timedText(word, {"word", "text"}))
            cue.words->push_back({timedWord->start, timedWord->end, std::move(timedWord->text)});
    }
    cues.push_back(std::move(cue));
  }
  return cues;
}

CaptionExchangeDocument bailianTranscriptionDocument(std::vector<CaptionExchangeCue> cues,
                                                     const CaptionExchangeJob& job, std::string_view rawResponses) {
  const std::int64_t duration = job.sourceDurationMilliseconds;
  std::vector<CaptionExchangeCue> kept;
  std::unordered_set<std::string> seen;
  for (CaptionExchangeCue& cue : cues) {
    cue.startMilliseconds = std::max<std::int64_t>(std::min(duration, cue.startMilliseconds), 0);
    cue.endMilliseconds = std::min(duration, cue.endMilliseconds);
    if (cue.endMilliseconds <= cue.startMilliseconds) continue;
    if (cue.words) {
      std::vector<CaptionExchangeWord> words;
      for (CaptionExchangeWord& word : *cue.words) {
        word.startMilliseconds = std::max(std::min(cue.endMilliseconds, word.startMilliseconds), cue.startMilliseconds);
        word.endMilliseconds = std::min(cue.endMilliseconds, word.endMilliseconds);
        if (word.endMilliseconds > word.startMilliseconds) words.push_back(std::move(word));
      }
      cue.words = std::move(words);
    }
    // The service repeats a sentence in each result event that still shows it.
    std::string key =
        std::to_string(cue.startMilliseconds) + "-" + std::to_string(cue.endMilliseconds) + "-" + cue.text;
    if (!seen.insert(std::move(key)).second) continue;
    kept.push_back(std::move(cue));
  }
  std::stable_sort(kept.begin(), kept.end(), [](const CaptionExchangeCue& a, const CaptionExchangeCue& b) {
    return a.startMilliseconds < b.startMilliseconds;
  });
  if (kept.empty()) throw CaptionTranscriptionError::missingTimestamps(rawResponses);

  CaptionExchangeDocument document;
  document.protocolVersion = CaptionExchangeDocument::currentProtocolVersion;
  document.jobID = job.id;
  document.projectID = job.projectID;
  document.sourceAudioDigest = job.sourceAudioDigest;
  document.language = std::string(CaptionExchangeDocument::simplifiedChineseLanguage);
  document.cues = std::move(kept);
  return document;
}

}  // namespace vumo
