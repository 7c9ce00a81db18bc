// Validation runs on every caption edit, so it must stay linear and cheap next to the work that
// surrounds it. Measured against two baselines of the same run: copying the document (validation
// returns a new one, so the copy is its floor) and encoding it (what a commit does next).
//
// Finding a highlight in its cue must stay linear too: a text built to defeat naive search (many
// near-matches before the real one) is measured against a text of the same size where the
// highlight stands at the start.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "captions/caption_document.h"
#include "recording_reporter.h"

namespace {

using namespace vumo;

CaptionDocument makeDocument(int cueCount) {
  CaptionDocument document;
  document.sourceTrack = MediaTrackKind::microphone;
  document.sourceAudioDigest = std::string(64, 'a');
  document.basedOnTimelineDigest = std::string(64, 'b');
  document.cues.reserve(static_cast<std::size_t>(cueCount));
  for (int i = 0; i < cueCount; ++i) {
    std::int64_t start = i * 100'000'000LL;
    CaptionCue cue;
    cue.id = Uuid::random();
    cue.start = {start};
    cue.end = {start + 90'000'000};
    if (i % 2 == 0) {
      cue.text = " Hello big world number " + std::to_string(i) + " ";
      cue.words = {{{start}, {start + 30'000'000}, "Hello"},
                   {{start + 30'000'000}, {start + 60'000'000}, "big"},
                   {{start + 60'000'000}, {start + 90'000'000}, "world"}};
      cue.highlights = {{"big", 1}};
    } else {
      cue.text = "\u3000字幕测试，第" + std::to_string(i) + "句 e\u0301 👨‍👩‍👧";
      cue.words = {{{start}, {start + 45'000'000}, "字幕"}, {{start + 45'000'000}, {start + 90'000'000}, "测试"}};
      cue.highlights = {{"测试", 1}};
    }
    document.cues.push_back(std::move(cue));
  }
  return document;
}

ProjectTime durationFor(int cueCount) { return {cueCount * 100'000'000LL + 1}; }

void BM_CopyDocument(benchmark::State& state) {
  CaptionDocument document = makeDocument(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    CaptionDocument copy = document;
    benchmark::DoNotOptimize(copy);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_EncodeDocument(benchmark::State& state) {
  CaptionDocument document = makeDocument(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(encodeCaptionDocument(document));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Validate(benchmark::State& state) {
  int cueCount = static_cast<int>(state.range(0));
  CaptionDocument document = makeDocument(cueCount);
  ProjectTime duration = durationFor(cueCount);
  for (auto _ : state) benchmark::DoNotOptimize(document.validated(duration));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ValidateLongCueTexts(benchmark::State& state) {
  // Texts above the 2,000-character threshold go through ICU's grapheme rules.
  CaptionDocument document = makeDocument(1000);
  std::string longText;
  for (int i = 0; i < 1000; ++i) longText += "字e\u0301";
  for (auto& cue : document.cues) {
    cue.text = longText;
    cue.words.clear();
    cue.highlights.clear();
  }
  for (auto _ : state) benchmark::DoNotOptimize(document.validated(durationFor(1000)));
  state.SetItemsProcessed(state.iterations() * 1000);
}

// 200,001 characters searched for a highlight of 100,001.
const std::string kNeedle = std::string(100'000, 'a') + "b";
const std::string kNearMisses = "x" + std::string(200'000, 'a') + "b";  // the needle only at its end
const std::string kAtOnce = kNeedle + std::string(100'000, 'a');        // the needle at the start

void searchHighlight(benchmark::State& state, const std::string& text) {
  const std::vector<CaptionHighlight> expected{{kNeedle, 1}};
  for (auto _ : state) {
    auto found = validatedHighlights(expected, text);
    if (found != expected) state.SkipWithError("the highlight was not found");
    benchmark::DoNotOptimize(found);
  }
}
void BM_HighlightAfterNearMisses(benchmark::State& state) { searchHighlight(state, kNearMisses); }
void BM_HighlightAtOnce(benchmark::State& state) { searchHighlight(state, kAtOnce); }

BENCHMARK(BM_HighlightAfterNearMisses)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HighlightAtOnce)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyDocument)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeDocument)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Validate)->Arg(1'000)->Arg(100'000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ValidateLongCueTexts)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  using vumo::bench::Ratio;
  return vumo::bench::runAndCompare(
      argc, argv,
      {
          {"validate 100k cues / copy 100k cues", "BM_Validate/100000", "BM_CopyDocument/100000"},
          {"validate 100k cues / encode 100k cues", "BM_Validate/100000", "BM_EncodeDocument/100000"},
          {"time per cue at 100k / time per cue at 1k",
           "BM_Validate/100000",
           "BM_Validate/1000",
           {},
           1000.0 / 100'000.0},
          {"1k cues of 2,000 chars / 1k short cues", "BM_ValidateLongCueTexts", "BM_Validate/1000"},
          {"highlight after 100k near-misses / highlight at the start", "BM_HighlightAfterNearMisses",
           "BM_HighlightAtOnce"},
      });
}
