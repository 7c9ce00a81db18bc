#pragma once

// What the Bailian realtime recognition service answers, read loosely (its messages are JSON of a
// form this program does not control), and how the sentences of a whole task become one caption
// exchange document.

#include <string_view>
#include <vector>

#include "agent/caption_exchange.h"
#include "shared/json_fwd.h"

namespace vumo {

// The sentences of one received message as cues, in the service's order. The sentence list is the
// first present of: top-level `segments`, top-level `sentences`, `output.sentences`,
// `output.sentence` as a list or as one object, where `output` is `payload.output` when that is an
// object and the top-level `output` otherwise. A sentence without a start (`start`, `start_time`,
// `begin_time`) or end (`end`, `end_time`) number, not starting before it ends, or without text
// (`text`, else `sentence`, trimmed) gives no cue. Times are the service's milliseconds rounded
// half away from zero. Words come from `words` (text at `word`, else `text`) by the same rules;
// a sentence without `words` gives a cue without a word list.
std::vector<CaptionExchangeCue> parseBailianCues(const Json& message);

// The document of a finished task: cues clipped to the recording (`job.sourceDurationMilliseconds`)
// and their words to their cue, dropping what is left empty; repeated sentences (same start, end
// and text) kept once; sorted by start, stably; language "zh-Hans". No cue left is
// CaptionTranscriptionError::missingTimestamps with `rawResponses` as its detail.
CaptionExchangeDocument bailianTranscriptionDocument(std::vector<CaptionExchangeCue> cues,
                                                     const CaptionExchangeJob& job, std::string_view rawResponses);

}  // namespace vumo
