// Loading reflows annotation lanes before validation can refuse a document, so a hostile document
// must not make it quadratic: 50,000 annotations that all overlap each other (each needs a lane of
// its own) are measured against 50,000 that follow one another (all fit one lane), in the same
// run. A lane scan per annotation would show here as a ratio in the thousands.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "recording_reporter.h"
#include "timeline/annotation_track_assignment.h"

namespace {

using namespace vumo;

constexpr std::uint32_t kCount = 50'000;

AnnotationElement annotation(std::uint32_t i, std::int64_t startNanoseconds, std::int64_t endNanoseconds) {
  AnnotationElement a;
  a.id.bytes[12] = static_cast<std::uint8_t>(i >> 24);
  a.id.bytes[13] = static_cast<std::uint8_t>(i >> 16);
  a.id.bytes[14] = static_cast<std::uint8_t>(i >> 8);
  a.id.bytes[15] = static_cast<std::uint8_t>(i);
  a.startTime = {startNanoseconds};
  a.endTime = {endNanoseconds};
  a.kind = AnnotationKind::rectangle;
  a.bounds = RectValue{0.1, 0.1, 0.3, 0.2};
  return a;
}

// Annotation i starts at i ns and every one lasts past the last start.
std::vector<AnnotationElement> overlapping() {
  std::vector<AnnotationElement> input;
  for (std::uint32_t i = 0; i < kCount; ++i) input.push_back(annotation(i, i, 1'000'000'000'000));
  return input;
}

// Annotation i lasts 5 ms from i x 10 ms.
std::vector<AnnotationElement> consecutive() {
  std::vector<AnnotationElement> input;
  for (std::uint32_t i = 0; i < kCount; ++i)
    input.push_back(annotation(i, i * 10'000'000LL, i * 10'000'000LL + 5'000'000));
  return input;
}

void reflow(benchmark::State& state, const std::vector<AnnotationElement>& input, bool laneEach) {
  for (auto _ : state) {
    auto output = AnnotationTrackAssignment::reflow(input);
    // Every annotation of the overlapping set gets a lane of its own, in start order.
    for (std::size_t i = 0; i < output.size(); i += 997)
      if (output[i].trackIndex != (laneEach ? static_cast<std::int64_t>(i) : 0)) state.SkipWithError("wrong lane");
    benchmark::DoNotOptimize(output);
  }
}

void BM_ReflowOverlapping(benchmark::State& state) { reflow(state, overlapping(), true); }
void BM_ReflowConsecutive(benchmark::State& state) { reflow(state, consecutive(), false); }
BENCHMARK(BM_ReflowOverlapping)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReflowConsecutive)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  return vumo::bench::runAndCompare(
      argc, argv,
      {{"reflow 50,000 overlapping / 50,000 consecutive annotations", "BM_ReflowOverlapping", "BM_ReflowConsecutive"}});
}
