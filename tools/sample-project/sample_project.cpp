#include "sample_project.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cmath>

#include "project/chunk_store.h"
#include "shared/error.h"
#include "timeline/initial_timeline.h"

extern char** environ;

namespace vumo {

namespace {

void runFFmpeg(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"ffmpeg", "-nostdin", "-y", "-loglevel", "error"});
  std::vector<char*> argv;
  for (auto& a : arguments) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  pid_t pid;
  int rc = ::posix_spawnp(&pid, "ffmpeg", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw FileError("Could not start ffmpeg to generate the sample movie");
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw FileError("ffmpeg could not generate the sample movie");
}

MouseEvent pointerEvent(std::int64_t milliseconds, PointValue normalized, MousePhase phase, PixelSize size) {
  MouseEvent event;
  event.rawTimestampNanoseconds = static_cast<std::uint64_t>(milliseconds) * 1'000'000;
  event.time = ProjectTime::fromMilliseconds(milliseconds);
  event.normalizedPoint = normalized;
  event.localPoint = {normalized.x * static_cast<double>(size.width), normalized.y * static_cast<double>(size.height)};
  event.globalPoint = event.localPoint;
  event.button = phase == MousePhase::moved ? MouseButton::none : MouseButton::left;
  event.phase = phase;
  event.isInsideSource = true;
  return event;
}

}  // namespace

ProjectPackage makeSampleProject(ProjectStore& store, const SampleProjectOptions& options) {
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::display;
  source.title = options.title;
  source.globalFrame = {0, 0, static_cast<double>(options.size.width), static_cast<double>(options.size.height)};
  source.initialPixelSize = options.size;
  RecordingOptions recording;
  recording.capturesSystemAudio = options.withSystemAudio;
  recording.capturesMicrophone = false;
  recording.framesPerSecond = options.framesPerSecond;
  CreatedProject created = store.createProject(source, recording, options.size, std::nullopt, std::nullopt);

  const double seconds = static_cast<double>(options.duration.nanoseconds) / 1e9;
  std::vector<std::string> arguments = {"-f", "lavfi", "-i",
                                        fmt::format("testsrc2=size={}x{}:rate={}:duration={:.3f}", options.size.width,
                                                    options.size.height, options.framesPerSecond, seconds)};
  if (options.withSystemAudio) {
    arguments.insert(arguments.end(),
                     {"-f", "lavfi", "-i", fmt::format("sine=frequency=440:duration={:.3f}", seconds)});
    arguments.insert(arguments.end(), {"-c:a", "aac", "-b:a", "64k"});
  }
  arguments.insert(arguments.end(), {"-c:v", "mpeg4", "-q:v", "8", "-pix_fmt", "yuv420p", "-shortest",
                                     created.package.mediaPath().string()});
  runFFmpeg(std::move(arguments));

  // The pointer wanders in a slow circle and clicks where asked.
  std::vector<MouseEvent> events;
  {
    ChunkStore<MouseEvent> chunks(created.package.mouseEventsDirectory(), standardChunkMaximumCount,
                                  standardChunkMaximumSpan, [](const MouseEvent& e) { return e.time; });
    const std::int64_t totalMilliseconds = options.duration.cliMilliseconds();
    auto pointAt = [](std::int64_t ms) {
      double angle = static_cast<double>(ms) / 3000.0;
      return PointValue{0.5 + 0.3 * std::cos(angle), 0.5 + 0.3 * std::sin(angle)};
    };
    std::size_t nextClick = 0;
    for (std::int64_t ms = 0; ms < totalMilliseconds; ms += 50) {
      while (nextClick < options.clickMilliseconds.size() && options.clickMilliseconds[nextClick] <= ms) {
        std::int64_t at = options.clickMilliseconds[nextClick++];
        events.push_back(pointerEvent(at, pointAt(at), MousePhase::down, options.size));
        events.push_back(pointerEvent(at + 80, pointAt(at), MousePhase::up, options.size));
      }
      events.push_back(pointerEvent(ms, pointAt(ms), MousePhase::moved, options.size));
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const MouseEvent& a, const MouseEvent& b) { return a.time < b.time; });
    for (const auto& event : events) chunks.append(event);
    chunks.flush();
  }

  ProjectManifest manifest = created.manifest;
  manifest.duration = options.duration;
  manifest.metrics.videoFrames = options.duration.cliMilliseconds() * options.framesPerSecond / 1000;
  manifest.metrics.mouseEvents = static_cast<std::int64_t>(events.size());
  store.writeTimeline(makeInitialTimeline(options.duration, std::nullopt, events), created.package);
  return store.finish(created.package, manifest);
}

}  // namespace vumo
