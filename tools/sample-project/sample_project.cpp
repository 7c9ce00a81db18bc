#include "sample_project.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <cmath>

#include "project/chunk_store.h"
#include "shared/error.h"
#include "timeline/initial_timeline.h"

extern char** environ;

namespace vumo {

namespace {

void runFFmpeg(std::vector<std::string> arguments, const std::string& what) {
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
  if (rc != 0) throw FileError("Could not start ffmpeg to generate the " + what);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) throw FileError("ffmpeg could not generate the " + what);
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

// A voice stand-in: a 150 Hz buzz with two overtones, its loudness rising and falling about six
// times a second like syllables, inside the given spans, over a faint hiss everywhere.
std::string speechExpression(const std::vector<std::pair<std::int64_t, std::int64_t>>& spans, double seconds) {
  std::string gate = "0";
  for (const auto& [start, end] : spans)
    gate += fmt::format("+between(t,{:.3f},{:.3f})", static_cast<double>(start) / 1000.0,
                        static_cast<double>(end) / 1000.0 - 1e-6);
  return fmt::format(
      "aevalsrc=exprs='0.004*(random(0)-0.5)+({})*(0.25+0.35*abs(sin(2*PI*3*t)))*"
      "(sin(2*PI*150*t)+0.5*sin(2*PI*300*t)+0.25*sin(2*PI*450*t))/1.75':sample_rate=48000:duration={:.3f}",
      gate, seconds);
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
  recording.capturesMicrophone = options.withMicrophone;
  recording.framesPerSecond = options.framesPerSecond;
  CreatedProject created = store.createProject(source, recording, options.size, std::nullopt, std::nullopt);

  const double seconds = static_cast<double>(options.duration.nanoseconds) / 1e9;
  // Inputs in the manifest's track order: screen, then system audio, then microphone.
  std::vector<std::string> arguments = {"-f", "lavfi", "-i",
                                        fmt::format("testsrc2=size={}x{}:rate={}:duration={:.3f}", options.size.width,
                                                    options.size.height, options.framesPerSecond, seconds)};
  std::vector<std::string> maps = {"-map", "0:v"};
  int input = 1;
  if (options.withSystemAudio) {
    arguments.insert(arguments.end(),
                     {"-f", "lavfi", "-i", fmt::format("sine=frequency=440:duration={:.3f}", seconds)});
    maps.insert(maps.end(), {"-map", fmt::format("{}:a", input++)});
  }
  if (options.withMicrophone) {
    arguments.insert(arguments.end(), {"-f", "lavfi", "-i", speechExpression(options.speechMilliseconds, seconds)});
    maps.insert(maps.end(), {"-map", fmt::format("{}:a", input++)});
  }
  arguments.insert(arguments.end(), maps.begin(), maps.end());
  if (options.withSystemAudio || options.withMicrophone)
    arguments.insert(arguments.end(), {"-c:a", "aac", "-b:a", "64k"});
  // A keyframe every two seconds, as a screen recorder writes them: a still from the middle of a
  // group of pictures must decode its way there from the keyframe before it.
  arguments.insert(arguments.end(),
                   {"-c:v", "mpeg4", "-q:v", "8", "-g", std::to_string(options.framesPerSecond * 2), "-pix_fmt",
                    "yuv420p", "-t", fmt::format("{:.3f}", seconds), created.package.mediaPath().string()});
  runFFmpeg(std::move(arguments), "sample movie");

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
    auto moving = [&](std::int64_t ms) {
      return std::any_of(options.pointerMilliseconds.begin(), options.pointerMilliseconds.end(),
                         [&](const auto& span) { return ms >= span.first && ms < span.second; });
    };
    for (std::int64_t ms = 0; ms < totalMilliseconds; ms += 50) {
      while (nextClick < options.clickMilliseconds.size() && options.clickMilliseconds[nextClick] <= ms) {
        std::int64_t at = options.clickMilliseconds[nextClick++];
        events.push_back(pointerEvent(at, pointAt(at), MousePhase::down, options.size));
        events.push_back(pointerEvent(at + 80, pointAt(at), MousePhase::up, options.size));
      }
      if (moving(ms)) events.push_back(pointerEvent(ms, pointAt(ms), MousePhase::moved, options.size));
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

void writeSpeechAudio(const std::filesystem::path& file,
                      const std::vector<std::pair<std::int64_t, std::int64_t>>& speechMilliseconds,
                      ProjectTime duration) {
  const double seconds = static_cast<double>(duration.nanoseconds) / 1e9;
  runFFmpeg({"-f", "lavfi", "-i", speechExpression(speechMilliseconds, seconds), "-c:a", "pcm_s16le", "-ac", "1", "-t",
             fmt::format("{:.3f}", seconds), "-f", "wav", file.string()},
            "sample speech");
}

}  // namespace vumo
