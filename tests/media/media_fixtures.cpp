#include "media_fixtures.h"

#include <fmt/format.h>

#include <cmath>

#include "shared/files.h"

namespace vumo::testing {

void runFfmpeg(const std::vector<std::string>& arguments) {
  ProcessLaunch launch;
  launch.words = {VUMO_FFMPEG_PROGRAM, "-hide_banner", "-loglevel", "error", "-nostdin", "-y"};
  launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
  launch.timeout = std::chrono::seconds(120);
  ProcessResult result = run(launch);
  if (result.status != 0) {
    ADD_FAILURE() << "ffmpeg failed (" << result.status << "): " << result.standardError;
    throw std::runtime_error("ffmpeg failed");
  }
}

std::vector<std::string> lavfiInput(const std::string& graph) { return {"-f", "lavfi", "-i", graph}; }

std::string smallVideoGraph(double seconds) { return fmt::format("color=c=black:s=16x16:r=5:d={}", seconds); }

std::string exactAudioGraph(const std::vector<std::string>& channelExpressions, double seconds, int sampleRate) {
  std::string expressions;
  for (const std::string& expression : channelExpressions) {
    if (!expressions.empty()) expressions += "|";
    expressions += "(" + expression + ")/32768";
  }
  // Commas inside a filter option must be escaped from the graph parser.
  std::string escaped;
  for (char c : expressions) {
    if (c == ',') escaped += '\\';
    escaped += c;
  }
  return fmt::format("aevalsrc=exprs={}:s={}:d={}", escaped, sampleRate, seconds);
}

namespace {

ProjectManifest manifestWith(std::vector<MediaTrack> tracks, ProjectTime duration, const std::string& relativePath) {
  ProjectManifest manifest;
  manifest.state = ProjectState::completed;
  manifest.duration = duration;
  manifest.media.relativePath = relativePath;
  manifest.media.tracks = std::move(tracks);
  return manifest;
}

}  // namespace

ProjectSnapshot makePackage(const std::filesystem::path& root, const PackageFixture& fixture) {
  ProjectSnapshot snapshot;
  snapshot.packagePath = root / "Test.vumo";
  createDirectories(snapshot.packagePath / "media");
  snapshot.manifest = manifestWith(fixture.tracks, fixture.duration, "media/" + fixture.movieName);
  if (fixture.webcamTrackIndex) {
    WebcamMediaInfo webcam;
    webcam.trackIndex = *fixture.webcamTrackIndex;
    webcam.deviceID = "camera";
    webcam.deviceName = "Camera";
    webcam.pixelSize = {16, 16};
    webcam.framesPerSecond = 5;
    snapshot.manifest.webcam = webcam;
  }
  snapshot.timeline = timelineOf({clip(ProjectTime::zero(), fixture.duration)});
  std::vector<std::string> arguments = fixture.inputs;
  arguments.insert(arguments.end(), fixture.outputOptions.begin(), fixture.outputOptions.end());
  arguments.push_back((snapshot.packagePath / snapshot.manifest.media.relativePath).string());
  runFfmpeg(arguments);
  return snapshot;
}

ProjectSnapshot makeAudioPackage(const std::filesystem::path& root, const AudioPackage& audio) {
  const double seconds = audio.startSeconds + static_cast<double>(audio.sampleCount) / 48'000.0;
  PackageFixture fixture;
  fixture.inputs = lavfiInput(smallVideoGraph(std::ceil(seconds)));
  if (audio.startSeconds > 0) {
    fixture.inputs.push_back("-itsoffset");
    fixture.inputs.push_back(fmt::format("{}", audio.startSeconds));
  }
  auto input = lavfiInput(exactAudioGraph(audio.channelExpressions, std::ceil(seconds) + 1) +
                          fmt::format(",atrim=end_sample={}", audio.sampleCount));
  fixture.inputs.insert(fixture.inputs.end(), input.begin(), input.end());
  fixture.outputOptions = {"-map", "0:v", "-map", "1:a", "-c:v", "mjpeg", "-c:a", "pcm_s16le"};
  fixture.tracks = {{MediaTrackKind::screen, 0}, {audio.kind, 1}};
  fixture.duration = ProjectTime{static_cast<std::int64_t>(std::ceil(seconds)) * 1'000'000'000};
  return makePackage(root, fixture);
}

ProjectSnapshot snapshotWithoutMovie(const std::filesystem::path& root, std::vector<MediaTrack> tracks) {
  ProjectSnapshot snapshot;
  snapshot.packagePath = root / "Test.vumo";
  createDirectories(snapshot.packagePath / "media");
  snapshot.manifest = manifestWith(std::move(tracks), ProjectTime::fromMilliseconds(1000), "media/recording.mov");
  snapshot.timeline = timelineOf({clip(ProjectTime::zero(), snapshot.manifest.duration)});
  return snapshot;
}

}  // namespace vumo::testing
