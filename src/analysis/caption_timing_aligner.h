#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "analysis/waveform_envelope.h"
#include "captions/caption_document.h"
#include "shared/name_table.h"
#include "shared/project_time.h"

namespace vumo {

// What alignment did to one cue.
enum class CaptionTimingAlignmentAction { aligned, unchangedNoActivity, unchangedAlreadyTight };

template <>
struct EnumNames<CaptionTimingAlignmentAction> {
  static constexpr std::string_view typeName = "caption timing alignment action";
  static constexpr NameTable<CaptionTimingAlignmentAction, 3> table{{
      {CaptionTimingAlignmentAction::aligned, "aligned"},
      {CaptionTimingAlignmentAction::unchangedNoActivity, "unchanged-no-activity"},
      {CaptionTimingAlignmentAction::unchangedAlreadyTight, "unchanged-already-tight"},
  }};
};

struct CaptionTimingAdjustment {
  std::int64_t cueIndex = 0;  // zero-based position in the document
  ProjectTimeRange originalRange;
  ProjectTimeRange adjustedRange;
  CaptionTimingAlignmentAction action = CaptionTimingAlignmentAction::aligned;

  friend bool operator==(const CaptionTimingAdjustment&, const CaptionTimingAdjustment&) = default;
};

struct CaptionTimingAlignmentResult {
  CaptionDocument document;  // same id, style and cue order; not validated again
  double estimatedNoiseFloorDecibels = 0;
  double thresholdDecibels = 0;
  std::vector<CaptionTimingAdjustment> adjustments;  // one per cue, in order
  std::vector<std::string> warnings;
};

// Tightens rough caption times (as a language model gives them) to the sound that is really there.
// A cue only ever shrinks towards its sound: it never leaves its original range, and its words
// are never cut off. Pure and stateless.
struct CaptionTimingAligner {
  static constexpr ProjectTime mergeGap{120'000'000};
  static constexpr ProjectTime minimumActivity{80'000'000};
  // Lead-in before the first sound and tail after the last: speech fades out more slowly than it
  // starts.
  static constexpr ProjectTime leadPadding{100'000'000};
  static constexpr ProjectTime tailPadding{150'000'000};
  // The shortest cue alignment makes, so that a caption stays readable.
  static constexpr ProjectTime minimumLength{300'000'000};
  // How many cue indices the warning names, and the key a translation of it is found under.
  static constexpr std::size_t listedIndexLimit = 20;
  static constexpr std::string_view noActivityWarningKey = "media.captions.noActivity";

  static CaptionTimingAlignmentResult align(const CaptionDocument& document, const WaveformEnvelope& envelope);
};

}  // namespace vumo
