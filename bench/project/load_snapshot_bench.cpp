// Loading a long recording: a project with 200,000 pointer events in 400 chunk files (about 60 MB
// of JSON). The snapshot loader is measured against a bare simdjson parse of the same files in the
// same run, and its peak memory growth against the size of the decoded events.

#include <benchmark/benchmark.h>
#include <simdjson.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <string>

#include "project/chunk_store.h"
#include "project/project_store.h"
#include "recording_reporter.h"
#include "shared/files.h"

namespace {

namespace fs = std::filesystem;
using namespace vumo;

constexpr int eventCount = 200'000;

struct Fixture {
  fs::path root;
  ProjectPackage package;
  std::uintmax_t chunkBytes = 0;
  std::size_t chunkFiles = 0;
};

Fixture& fixture() {
  static Fixture f = [] {
    Fixture f;
    std::string pattern = (fs::temp_directory_path() / "vumo-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    f.root = pattern;
    ProjectStore store(f.root / "Projects");
    CaptureSourceDescriptor source;
    source.title = "Display";
    source.globalFrame = {0, 0, 2560, 1440};
    source.initialPixelSize = {2560, 1440};
    auto created = store.createProject(source, RecordingOptions{}, {2560, 1440}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), "media");
    std::mt19937_64 random(7);
    std::uniform_real_distribution<double> x(0, 2560), y(0, 1440);
    {
      ChunkStore<MouseEvent> events(created.package.mouseEventsDirectory(), standardChunkMaximumCount,
                                    standardChunkMaximumSpan, [](const MouseEvent& e) { return e.time; });
      for (int i = 0; i < eventCount; ++i) {
        MouseEvent e;
        // A fast pointer (250 Hz): 500 events fill a chunk just before its two seconds do.
        e.time = {static_cast<std::int64_t>(i) * 3'990'000};
        e.rawTimestampNanoseconds = 1'732'000'000'000'000'000ull + static_cast<std::uint64_t>(e.time.nanoseconds);
        e.globalPoint = {x(random), y(random)};
        e.localPoint = e.globalPoint;
        e.normalizedPoint = {e.globalPoint.x / 2560, e.globalPoint.y / 1440};
        e.geometryRevision = 1;
        e.button = i % 50 == 0 ? MouseButton::left : MouseButton::none;
        e.phase = i % 50 == 0 ? MousePhase::down : MousePhase::moved;
        if (i % 10 == 0) e.isInsideSource = true;
        events.append(e);
      }
      events.flush();
    }
    created.manifest.duration = ProjectTime{static_cast<std::int64_t>(eventCount) * 3'990'000};
    f.package = store.finish(created.package, created.manifest);
    for (const auto& file : ChunkFiles::existingChunkPaths(f.package.mouseEventsDirectory())) {
      f.chunkBytes += fs::file_size(file);
      ++f.chunkFiles;
    }
    return f;
  }();
  return f;
}

// The floor: read each chunk file and parse it, nothing else.
void BM_BareSimdjsonParse(benchmark::State& state) {
  auto files = ChunkFiles::existingChunkPaths(fixture().package.mouseEventsDirectory());
  simdjson::dom::parser parser;
  for (auto _ : state) {
    std::size_t elements = 0;
    for (const auto& file : files) {
      simdjson::padded_string text = simdjson::padded_string::load(file.string());
      simdjson::dom::array array = parser.parse(text).get_array();
      elements += array.size();
    }
    if (elements != eventCount) state.SkipWithError("wrong element count");
    benchmark::DoNotOptimize(elements);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fixture().chunkBytes));
}

void BM_LoadSnapshot(benchmark::State& state) {
  ProjectStore store(fixture().root / "Projects");
  for (auto _ : state) {
    ProjectSnapshot snapshot = store.loadSnapshot(fixture().package);
    if (snapshot.mouseEvents.size() != eventCount) state.SkipWithError("wrong event count");
    benchmark::DoNotOptimize(snapshot.mouseEvents.data());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fixture().chunkBytes));
}

BENCHMARK(BM_BareSimdjsonParse)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadSnapshot)->Unit(benchmark::kMillisecond);

std::int64_t statusKilobytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::stoll(line.substr(std::string(field).size()));
  return -1;
}

// In a child process, so nothing measured before counts: peak resident growth during one load.
void measurePeakMemory() {
  int pipeFds[2];
  if (::pipe(pipeFds) != 0) return;
  pid_t pid = ::fork();
  if (pid == 0) {
    ::close(pipeFds[0]);
    {
      std::ofstream reset("/proc/self/clear_refs");
      reset << "5";  // resets VmHWM to the current resident size
    }
    std::int64_t before = statusKilobytes("VmRSS:");
    std::int64_t peak = 0;
    std::size_t eventBytes = 0;
    {
      ProjectStore store(fixture().root / "Projects");
      ProjectSnapshot snapshot = store.loadSnapshot(fixture().package);
      eventBytes = snapshot.mouseEvents.size() * sizeof(MouseEvent);
      peak = statusKilobytes("VmHWM:");
    }
    std::int64_t values[3] = {before, peak, static_cast<std::int64_t>(eventBytes)};
    (void)!::write(pipeFds[1], values, sizeof values);
    ::_exit(0);
  }
  ::close(pipeFds[1]);
  std::int64_t values[3] = {};
  bool ok = ::read(pipeFds[0], values, sizeof values) == sizeof values;
  ::close(pipeFds[0]);
  ::waitpid(pid, nullptr, 0);
  if (!ok) return;
  double growthBytes = static_cast<double>(values[1] - values[0]) * 1024;
  std::printf(
      "peak resident growth during loadSnapshot: %.1f MB; decoded events: %.1f MB (%zu bytes each); "
      "ratio %.2f\n",
      growthBytes / 1e6, static_cast<double>(values[2]) / 1e6, sizeof(MouseEvent),
      growthBytes / static_cast<double>(values[2]));
}

}  // namespace

int main(int argc, char** argv) {
  using vumo::bench::Clock;
  int status = vumo::bench::runAndCompare(
      argc, argv,
      {
          {"loadSnapshot / bare simdjson parse (wall)",
           "BM_LoadSnapshot",
           "BM_BareSimdjsonParse",
           {},
           1.0,
           Clock::wall},
          {"loadSnapshot / bare simdjson parse (processor)", "BM_LoadSnapshot", "BM_BareSimdjsonParse"},
      },
      [] {
        Fixture& f = fixture();
        std::printf("fixture: %d events in %zu chunk files, %.1f MB of JSON\n", eventCount, f.chunkFiles,
                    static_cast<double>(f.chunkBytes) / 1e6);
        measurePeakMemory();
      });
  std::error_code ignored;
  fs::remove_all(fixture().root, ignored);
  return status;
}
