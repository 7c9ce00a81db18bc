// `vumo record` as a user runs it: the real program against a private X server and sound server,
// driven from outside with xdotool, signals and a client that draws, and judged by what it leaves
// on disk (the package, its movie read back with the media area and ffprobe/ffmpeg, its chunks).

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "media/media_container.h"
#include "project/project_store.h"
#include "shared/json.h"
#include "support/desktop_servers.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::ProcessLaunch;
using testing::ProcessResult;

constexpr const char* sinkMonitor = "vumo_test_sink.monitor";

double seconds(ProjectTime time) { return double(time.nanoseconds) / 1e9; }

// A sine tone as a 16-bit mono WAV file, for paplay.
void writeTone(const fs::path& file, double durationSeconds) {
  const int rate = 48'000;
  const auto frames = std::uint32_t(durationSeconds * rate);
  std::string data;
  for (std::uint32_t i = 0; i < frames; ++i) {
    const auto sample = std::int16_t(std::lround(12'000 * std::sin(2 * M_PI * 440.0 * i / rate)));
    data.push_back(char(sample & 0xff));
    data.push_back(char((sample >> 8) & 0xff));
  }
  auto u32 = [](std::uint32_t v) { return std::string{char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; };
  auto u16 = [](std::uint16_t v) { return std::string{char(v), char(v >> 8)}; };
  std::ofstream out(file, std::ios::binary);
  out << "RIFF" << u32(36 + std::uint32_t(data.size())) << "WAVE"
      << "fmt " << u32(16) << u16(1) << u16(1) << u32(rate) << u32(rate * 2) << u16(2) << u16(16) << "data"
      << u32(std::uint32_t(data.size())) << data;
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(20ms);
  }
  return condition();
}

// Draws the number of each step on a window as sixteen black or white bars, as fast as it can:
// every frame of a recording of that window should show a newer number. The bars are the number's
// Gray code, in which one step changes one bar, so a frame taken while a step is half drawn shows
// the step before or the step itself, never a third number. Keeps the number and time of each
// step, so a test knows what was on screen when, and when the picture itself stood still.
class CountingPainter {
 public:
  static constexpr int bars = 16;
  static constexpr int barWidth = 20;
  static constexpr int width = bars * barWidth;
  static constexpr int height = 240;

  CountingPainter(const std::string& display, int x, int y) : client_(display) {
    window_ = client_.createWindow(x, y, width, height, 0x000000, "Counting painter");
    thread_ = std::jthread([this](std::stop_token stop) { paint(stop); });
  }

  struct Step {
    std::uint32_t number;
    std::chrono::steady_clock::time_point time;
  };

  std::vector<Step> steps() {
    std::lock_guard lock(mutex_);
    return steps_;
  }
  std::uint32_t current() {
    std::lock_guard lock(mutex_);
    return steps_.empty() ? 0 : steps_.back().number;
  }
  // The last step drawn completely by `time`.
  std::uint32_t numberAt(std::chrono::steady_clock::time_point time) {
    std::lock_guard lock(mutex_);
    std::uint32_t number = 0;
    for (const Step& step : steps_)
      if (step.time <= time) number = step.number;
    return number;
  }
  void stop() {
    thread_.request_stop();
    if (thread_.joinable()) thread_.join();
  }
  ~CountingPainter() { stop(); }

  // The number a frame of the window shows, read from the middle of its bars.
  static std::uint32_t numberIn(const std::string& grayFrame, int frameWidth) {
    std::uint32_t code = 0;
    for (int bar = 0; bar < bars; ++bar) {
      const auto value = std::uint8_t(grayFrame[std::size_t(height / 2) * frameWidth + bar * barWidth + barWidth / 2]);
      if (value > 128) code |= 1u << bar;
    }
    std::uint32_t number = code;
    for (std::uint32_t shift = code >> 1; shift != 0; shift >>= 1) number ^= shift;
    return number;
  }

 private:
  void paint(const std::stop_token& stop) {
    for (std::uint32_t number = 1; !stop.stop_requested(); ++number) {
      const std::uint32_t code = number ^ (number >> 1);
      for (int bar = 0; bar < bars; ++bar)
        client_.fillRectangle(window_, bar * barWidth, 0, barWidth, height, (code >> bar) & 1 ? 0xffffff : 0x000000);
      {
        std::lock_guard lock(mutex_);
        steps_.push_back({number, std::chrono::steady_clock::now()});
      }
      std::this_thread::sleep_for(5ms);
    }
  }

  testing::TestX11Client client_;
  xcb_window_t window_ = 0;
  std::mutex mutex_;
  std::vector<Step> steps_;
  std::jthread thread_;
};

class RecordIntegrationTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    x_ = new testing::XvfbServer();
    pulse_ = new testing::PulseAudioServer();
  }
  static void TearDownTestSuite() {
    delete pulse_;
    delete x_;
    pulse_ = nullptr;
    x_ = nullptr;
  }

  fs::path projects() const { return data_.path() / "Vumo" / "Projects"; }

  std::vector<fs::path> packages() const {
    std::vector<fs::path> found;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(projects(), error)) found.push_back(entry.path());
    std::sort(found.begin(), found.end());
    return found;
  }

  // The package of the recording that has begun, made just before its first frame.
  fs::path waitForUnfinishedPackage() const {
    fs::path found;
    waitUntil(
        [&] {
          for (const fs::path& package : packages())
            if (package.string().ends_with(".vumo.tmp")) found = package;
          return !found.empty();
        },
        30s);
    return found;
  }

  static ProcessResult vumo(const std::vector<std::string>& arguments, std::function<void(int)> whileRunning = {},
                            std::chrono::milliseconds timeout = 90s) {
    ProcessLaunch launch;
    launch.words = {testing::vumoBinary().string()};
    launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
    launch.timeout = timeout;
    launch.whileRunning = std::move(whileRunning);
    return testing::run(launch);
  }

  static ProcessResult record(std::vector<std::string> arguments, std::function<void(int)> whileRunning = {}) {
    arguments.insert(arguments.begin(), "record");
    return vumo(arguments, std::move(whileRunning));
  }

  // The one JSON object of a successful run: anything more on standard output fails the parse.
  static Json answerOf(const ProcessResult& result) {
    EXPECT_FALSE(result.timedOut);
    EXPECT_EQ(result.status, 0) << result.standardError;
    try {
      return Json::parse(result.standardOutput);
    } catch (const std::exception& error) {
      ADD_FAILURE() << "not one JSON answer: " << error.what() << "\n" << result.standardOutput;
      return Json::object();
    }
  }

  static ProcessResult tool(const std::string& program, const std::string& package,
                            const std::vector<std::string>& arguments) {
    ProcessLaunch launch;
    launch.words = {testing::requireProgram(program, package).string()};
    launch.words.insert(launch.words.end(), arguments.begin(), arguments.end());
    launch.timeout = 60s;
    return testing::run(launch);
  }

  static Json probe(const fs::path& movie) {
    auto result = tool("ffprobe", "ffmpeg", {"-v", "error", "-show_streams", "-of", "json", movie.string()});
    EXPECT_EQ(result.status, 0) << result.standardError;
    return Json::parse(result.standardOutput);
  }

  // Presentation times of the video packets, in order.
  static std::vector<double> videoTimes(const fs::path& movie) {
    auto result = tool("ffprobe", "ffmpeg",
                       {"-v", "error", "-select_streams", "v:0", "-show_entries", "packet=pts_time", "-of", "csv=p=0",
                        movie.string()});
    EXPECT_EQ(result.status, 0) << result.standardError;
    std::vector<double> times;
    std::istringstream lines(result.standardOutput);
    for (std::string line; std::getline(lines, line);)
      if (!line.empty()) times.push_back(std::stod(line));
    std::sort(times.begin(), times.end());
    return times;
  }

  // Every decoded frame of the screen track, one byte a pixel, none repeated or dropped on the way.
  static std::vector<std::string> grayFrames(const fs::path& movie, int width, int height) {
    auto result = tool("ffmpeg", "ffmpeg",
                       {"-nostdin", "-v", "error", "-i", movie.string(), "-map", "0:v:0", "-fps_mode", "passthrough",
                        "-f", "rawvideo", "-pix_fmt", "gray", "-"});
    EXPECT_EQ(result.status, 0) << result.standardError;
    const std::size_t size = std::size_t(width) * height;
    std::vector<std::string> frames;
    for (std::size_t at = 0; at + size <= result.standardOutput.size(); at += size)
      frames.push_back(result.standardOutput.substr(at, size));
    return frames;
  }

  // The loudest sample of one audio stream, in dB below full scale.
  static double loudestDecibels(const fs::path& movie, int audioIndex) {
    auto result = tool("ffmpeg", "ffmpeg",
                       {"-nostdin", "-v", "info", "-i", movie.string(), "-map", "0:a:" + std::to_string(audioIndex),
                        "-af", "volumedetect", "-f", "null", "-"});
    const auto at = result.standardError.find("max_volume:");
    if (at == std::string::npos) return -200;
    return std::stod(result.standardError.substr(at + 11));
  }

  static std::vector<MouseEvent> leftPresses(const ProjectSnapshot& snapshot) {
    std::vector<MouseEvent> presses;
    for (const MouseEvent& event : snapshot.mouseEvents)
      if (event.isLeftPress()) presses.push_back(event);
    return presses;
  }

  static void xdotool(const std::vector<std::string>& arguments) { testing::xdotool(x_->display(), arguments); }

  static inline testing::XvfbServer* x_ = nullptr;
  static inline testing::PulseAudioServer* pulse_ = nullptr;

  testing::ScopedDataHome data_;
  testing::TemporaryDirectory cache_;
  testing::ScopedEnvironmentVariable cacheHome_{"XDG_CACHE_HOME", cache_.path().string()};
  testing::ScopedEnvironmentVariable display_{"DISPLAY", x_->display()};
  // Whatever session the tests run in, the program sees the X server of the test alone.
  testing::ScopedEnvironmentVariable wayland_{"WAYLAND_DISPLAY", std::nullopt};
  testing::ScopedEnvironmentVariable sessionType_{"XDG_SESSION_TYPE", std::nullopt};
  ProjectStore store_;
};

TEST_F(RecordIntegrationTest, ListsTheDisplayTheWindowsAndTheSoundSources) {
  testing::TestX11Client client(x_->display());
  const xcb_window_t window = client.createWindow(40, 30, 200, 100, 0x3366cc, "Listed window");
  const Json answer = answerOf(record({"--list-sources"}));
  ASSERT_TRUE(answer["x11"]["displays"].is_array());
  ASSERT_FALSE(answer["x11"]["displays"].empty());
  EXPECT_EQ(answer["x11"]["displays"][0]["frame"]["width"], 1280.0);
  EXPECT_EQ(answer["x11"]["displays"][0]["frame"]["height"], 720.0);
  bool windowListed = false;
  for (const Json& listed : answer["x11"]["windows"])
    if (listed["nativeID"] == window) {
      windowListed = true;
      EXPECT_EQ(listed["title"], "Listed window");
      EXPECT_EQ(listed["frame"], Json({{"x", 40.0}, {"y", 30.0}, {"width", 200.0}, {"height", 100.0}}));
    }
  EXPECT_TRUE(windowListed) << answer.dump();
  bool monitorListed = false;
  for (const Json& source : answer["audioSources"])
    if (source["name"] == sinkMonitor) monitorListed = source["isMonitor"] == true;
  EXPECT_TRUE(monitorListed) << answer.dump();

  // A Wayland session is refused only where the X server is its Xwayland, which sees no more than
  // its own clients; a nested server of its own, as the test's is, shows everything drawn on it.
  testing::ScopedEnvironmentVariable wayland("WAYLAND_DISPLAY", "wayland-0");
  testing::ScopedEnvironmentVariable sessionType("XDG_SESSION_TYPE", "wayland");
  const Json nested = answerOf(record({"--list-sources", "--backend", "x11"}));
  EXPECT_FALSE(nested["x11"].contains("unavailable")) << nested.dump();
  EXPECT_EQ(nested["x11"]["displays"], answer["x11"]["displays"]);
  // Left to itself on a Wayland session, the program asks the desktop's screen-cast portal.
  EXPECT_EQ(answerOf(record({"--list-sources"}))["backend"], "portal");
}

// One take of the whole screen with sound from both sources and a user at work: clicks at two
// known places, far enough apart for a zoom each, while a tone plays.
TEST_F(RecordIntegrationTest, ADisplayRecordingKeepsPictureSoundPointerAndCursorAndOpensInTheAgentCommands) {
  xdotool({"mousemove", "100", "100"});
  const fs::path tone = cache_.path() / "tone.wav";
  writeTone(tone, 2.0);
  std::unique_ptr<testing::BackgroundProcess> player;
  const ProcessResult result =
      record({"--fps", "30", "--duration", "3", "--system-audio", "--microphone", sinkMonitor}, [&](int) {
        ASSERT_FALSE(waitForUnfinishedPackage().empty());
        player = std::make_unique<testing::BackgroundProcess>(
            std::vector<std::string>{testing::requireProgram("paplay", "pulseaudio-utils").string(),
                                     "--device=vumo_test_sink", tone.string()},
            std::vector<std::string>{}, cache_.path() / "paplay.log");
        std::this_thread::sleep_for(300ms);
        xdotool({"mousemove", "640", "360"});
        std::this_thread::sleep_for(200ms);
        xdotool({"mousemove", "480", "270"});
        xdotool({"click", "1"});
        // Far enough in time that the second zoom's way in starts after the first click.
        std::this_thread::sleep_for(1300ms);
        xdotool({"mousemove", "800", "450"});
        xdotool({"click", "1"});
      });
  const Json answer = answerOf(result);
  ASSERT_EQ(result.status, 0);
  const fs::path packagePath = answer["packagePath"].get<std::string>();
  EXPECT_EQ(packagePath.extension(), ".vumo");
  EXPECT_EQ(packages(), std::vector<fs::path>{packagePath});
  EXPECT_EQ(answer["width"], 1280);
  EXPECT_EQ(answer["height"], 720);
  EXPECT_TRUE(answer["recoveredProjects"].empty());

  const ProjectSnapshot snapshot = store_.loadSnapshot(ProjectPackage{packagePath});
  const ProjectManifest& manifest = snapshot.manifest;
  EXPECT_EQ(manifest.state, ProjectState::completed);
  EXPECT_EQ(manifest.id.string(), answer["projectID"]);

  // The movie: screen, system audio, microphone, in that order, the screen at the display's size.
  ASSERT_EQ(manifest.media.tracks.size(), 3u);
  const MediaTrackKind order[] = {MediaTrackKind::screen, MediaTrackKind::systemAudio, MediaTrackKind::microphone};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(manifest.media.tracks[i].kind, order[i]) << i;
    EXPECT_EQ(manifest.media.tracks[i].trackIndex, std::int64_t(i));
  }
  const fs::path movie = MediaContainer::moviePath(snapshot);
  MediaContainer container = MediaContainer::open(movie);
  ASSERT_EQ(container.streamCount(), 3);
  EXPECT_EQ(container.streamType(0), MediaStreamType::video);
  EXPECT_EQ(container.streamType(1), MediaStreamType::audio);
  EXPECT_EQ(container.streamType(2), MediaStreamType::audio);
  const Json streams = probe(movie)["streams"];
  EXPECT_EQ(streams[0]["width"], 1280);
  EXPECT_EQ(streams[0]["height"], 720);
  EXPECT_EQ(manifest.encodedPixelSize, (PixelSize{1280, 720}));

  // The manifest's length is the picture's, and the one asked for.
  const double videoDuration = seconds(container.streamTimeRange(0).duration);
  EXPECT_NEAR(seconds(manifest.duration), videoDuration, 1.0 / 30 + 0.001);
  EXPECT_NEAR(seconds(manifest.duration), 3.0, 0.5);
  EXPECT_EQ(answer["durationMilliseconds"], manifest.duration.cliMilliseconds());
  // The tone reached both sound tracks (paplay started with the recording and plays for 2 s).
  EXPECT_GT(loudestDecibels(movie, 0), -30.0);
  EXPECT_GT(loudestDecibels(movie, 1), -30.0);

  // The pointer: the moves, and the two presses of the left button where they happened.
  const std::vector<MouseEvent> presses = leftPresses(snapshot);
  ASSERT_EQ(presses.size(), 2u) << Json(snapshot.mouseEvents).dump();
  const PointValue expected[] = {{480.0 / 1280, 270.0 / 720}, {800.0 / 1280, 450.0 / 720}};
  for (std::size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    EXPECT_NEAR(presses[i].normalizedPoint.x, expected[i].x, 1e-6);
    EXPECT_NEAR(presses[i].normalizedPoint.y, expected[i].y, 1e-6);
    EXPECT_TRUE(presses[i].isVisibleInsideSource());
    EXPECT_GT(presses[i].time.nanoseconds, 0);
    EXPECT_LT(presses[i].time, manifest.duration);
  }
  EXPECT_TRUE(std::any_of(snapshot.mouseEvents.begin(), snapshot.mouseEvents.end(),
                          [](const MouseEvent& event) { return event.phase == MousePhase::up; }));
  // A move on its own, with time to be seen before the next one.
  EXPECT_TRUE(std::any_of(snapshot.mouseEvents.begin(), snapshot.mouseEvents.end(), [](const MouseEvent& event) {
    return event.phase == MousePhase::moved && event.normalizedPoint == PointValue{0.5, 0.5};
  })) << Json(snapshot.mouseEvents).dump();
  EXPECT_EQ(answer["mouseEvents"], std::int64_t(snapshot.mouseEvents.size()));

  // The cursor's images are kept beside the picture, which is drawn without it.
  EXPECT_FALSE(snapshot.cursorAssets.empty());
  EXPECT_FALSE(snapshot.cursorShapeSamples.empty());
  const ProjectPackage package{packagePath};
  bool png = false, json = false;
  for (const auto& entry : fs::directory_iterator(package.cursorAssetsDirectory())) {
    png = png || entry.path().extension() == ".png";
    json = json || entry.path().extension() == ".json";
  }
  EXPECT_TRUE(png && json);
  EXPECT_TRUE(fs::is_regular_file(package.cursorEventsDirectory() / "000000.json"));

  // The first timeline zooms in at each click, towards where it happened.
  ASSERT_EQ(snapshot.timeline.zooms.size(), 2u);
  EXPECT_EQ(answer["zooms"], 2);
  for (std::size_t i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(snapshot.timeline.zooms[i].focusTime, presses[i].time);
    EXPECT_LT(snapshot.timeline.zooms[i].startTime, presses[i].time);
    EXPECT_GT(snapshot.timeline.zooms[i].endTime, presses[i].time);
    EXPECT_NEAR(snapshot.timeline.zooms[i].focusPoint.x, expected[i].x, 1e-6);
    EXPECT_NEAR(snapshot.timeline.zooms[i].focusPoint.y, expected[i].y, 1e-6);
  }

  // The agent's commands take the new project as it is.
  const std::string id = answer["projectID"];
  ProcessResult described = vumo({"cli", "describe", id});
  const Json description = answerOf(described);
  EXPECT_EQ(description["state"], "completed");
  EXPECT_EQ(description["sourceWidth"], 1280);
  EXPECT_EQ(description["zooms"].size(), 2u);
  EXPECT_EQ(description["tracks"]["microphone"], true);
  const fs::path still = cache_.path() / "still.png";
  ProcessResult frame = vumo({"cli", "frame", id, "--ms", "1000", "--width", "640", "--out", still.string()});
  EXPECT_EQ(answerOf(frame)["outputPath"], still.string());
  ASSERT_TRUE(fs::is_regular_file(still));
  std::ifstream stillFile(still, std::ios::binary);
  char signature[8] = {};
  stillFile.read(signature, 8);
  EXPECT_EQ(std::string(signature + 1, 3), "PNG");
}

// An area and a window: the picture is the source's size, and the pointer is placed against the
// source, not the screen.
TEST_F(RecordIntegrationTest, AreaAndWindowRecordingsTakeTheSizeAndCoordinatesOfTheirSource) {
  {
    SCOPED_TRACE("area");
    xdotool({"mousemove", "10", "10"});
    // An odd size is recorded one pixel smaller, as the encoder needs.
    const ProcessResult result = record({"--area", "101,51,401,301", "--fps", "15", "--duration", "2"}, [&](int) {
      ASSERT_FALSE(waitForUnfinishedPackage().empty());
      std::this_thread::sleep_for(600ms);
      xdotool({"mousemove", "301", "201", "click", "1"});
      xdotool({"mousemove", "900", "600", "click", "1"});
    });
    const Json answer = answerOf(result);
    EXPECT_EQ(answer["width"], 400);
    EXPECT_EQ(answer["height"], 300);
    const ProjectSnapshot snapshot = store_.loadSnapshot(ProjectPackage{answer["packagePath"].get<std::string>()});
    const Json streams = probe(MediaContainer::moviePath(snapshot))["streams"];
    EXPECT_EQ(streams[0]["width"], 400);
    EXPECT_EQ(streams[0]["height"], 300);
    const std::vector<MouseEvent> presses = leftPresses(snapshot);
    ASSERT_EQ(presses.size(), 2u) << Json(snapshot.mouseEvents).dump();
    EXPECT_EQ(presses[0].localPoint, (PointValue{200, 150}));
    // Against the area as it was given; the one pixel the encoder left out is too small to tell.
    EXPECT_NEAR(presses[0].normalizedPoint.x, 200.0 / 401, 0.003);
    EXPECT_NEAR(presses[0].normalizedPoint.y, 150.0 / 301, 0.003);
    EXPECT_TRUE(presses[0].isVisibleInsideSource());
    EXPECT_EQ(presses[1].localPoint, (PointValue{799, 549}));
    EXPECT_EQ(presses[1].isInsideSource, std::optional<bool>(false));
    // A click outside the picture makes no zoom.
    EXPECT_EQ(snapshot.timeline.zooms.size(), 1u);
  }
  {
    SCOPED_TRACE("window");
    testing::TestX11Client client(x_->display());
    const xcb_window_t window = client.createWindow(600, 200, 360, 240, 0x884422, "Recorded window");
    const ProcessResult result =
        record({"--window", fmt::format("{:#x}", window), "--fps", "15", "--duration", "1.5"}, [&](int) {
          ASSERT_FALSE(waitForUnfinishedPackage().empty());
          std::this_thread::sleep_for(500ms);
          xdotool({"mousemove", "690", "260", "click", "1"});
        });
    const Json answer = answerOf(result);
    EXPECT_EQ(answer["width"], 360);
    EXPECT_EQ(answer["height"], 240);
    EXPECT_EQ(answer["title"], "Recorded window");
    const ProjectSnapshot snapshot = store_.loadSnapshot(ProjectPackage{answer["packagePath"].get<std::string>()});
    EXPECT_EQ(snapshot.manifest.source.kind, CaptureSourceKind::window);
    const Json streams = probe(MediaContainer::moviePath(snapshot))["streams"];
    EXPECT_EQ(streams[0]["width"], 360);
    EXPECT_EQ(streams[0]["height"], 240);
    const std::vector<MouseEvent> presses = leftPresses(snapshot);
    ASSERT_EQ(presses.size(), 1u) << Json(snapshot.mouseEvents).dump();
    EXPECT_NEAR(presses[0].normalizedPoint.x, 90.0 / 360, 1e-6);
    EXPECT_NEAR(presses[0].normalizedPoint.y, 60.0 / 240, 1e-6);
  }
}

// A pause of about a second in a recording of a picture that changes all the time: the movie
// runs on without a lost picture and without a frozen stretch, and the paused second is not in it.
TEST_F(RecordIntegrationTest, PauseAndResumeBySignalLeaveNeitherGapNorFrozenFrames) {
  const int fps = 15;
  CountingPainter painter(x_->display(), 100, 100);
  ASSERT_TRUE(waitUntil([&] { return painter.current() > 3; }, 10s));
  std::chrono::steady_clock::time_point pauseSent, resumeSent;
  const ProcessResult result =
      record({"--area", fmt::format("100,100,{},{}", CountingPainter::width, CountingPainter::height), "--fps",
              std::to_string(fps), "--duration", "3"},
             [&](int pid) {
               ASSERT_FALSE(waitForUnfinishedPackage().empty());
               std::this_thread::sleep_for(1200ms);
               pauseSent = std::chrono::steady_clock::now();
               ::kill(pid, SIGUSR1);
               std::this_thread::sleep_for(1000ms);
               resumeSent = std::chrono::steady_clock::now();
               ::kill(pid, SIGUSR1);
             });
  painter.stop();
  // What was drawn once the program had surely seen the pause, until a little before the resume,
  // is not in the movie. The first frame after the resume may have been taken just before it.
  const std::uint32_t pausedFrom = painter.numberAt(pauseSent + 250ms);
  const std::uint32_t pausedUntil = painter.numberAt(resumeSent - std::chrono::milliseconds(2000 / fps));
  const Json answer = answerOf(result);
  ASSERT_EQ(result.status, 0);
  EXPECT_NE(result.standardError.find("paused"), std::string::npos) << result.standardError;
  const ProjectSnapshot snapshot = store_.loadSnapshot(ProjectPackage{answer["packagePath"].get<std::string>()});
  const RecordingMetrics& metrics = snapshot.manifest.metrics;
  EXPECT_EQ(metrics.pauseCount, std::optional<std::int64_t>(1));
  ASSERT_TRUE(metrics.pausedDurationNanoseconds);
  const double sentApart = std::chrono::duration<double>(resumeSent - pauseSent).count();
  EXPECT_NEAR(double(*metrics.pausedDurationNanoseconds) / 1e9, sentApart, 0.3);
  // Three seconds of recording, the paused one not counted.
  EXPECT_NEAR(seconds(snapshot.manifest.duration), 3.0, 0.5);

  const fs::path movie = MediaContainer::moviePath(snapshot);
  const std::vector<double> times = videoTimes(movie);
  ASSERT_GT(times.size(), std::size_t(2 * fps));
  const std::vector<std::string> frames = grayFrames(movie, CountingPainter::width, CountingPainter::height);
  ASSERT_EQ(frames.size(), times.size());
  // An unchanged tick is not encoded, so a stall of the painter leaves a gap in the movie; but only
  // where nothing was drawn: the picture after a gap is the next step, or the same one (the
  // heartbeat, which comes at least once a second).
  for (std::size_t i = 1; i < times.size(); ++i) {
    const double gap = times[i] - times[i - 1];
    EXPECT_LE(gap, 1.0 + 1.5 / fps) << "a gap before frame " << i << " at " << times[i] << " s";
    if (gap <= 1.5 / fps) continue;
    const std::uint32_t before = CountingPainter::numberIn(frames[i - 1], CountingPainter::width);
    const std::uint32_t after = CountingPainter::numberIn(frames[i], CountingPainter::width);
    EXPECT_LE(after, before + 1) << "a gap of " << gap << " s before frame " << i << " at " << times[i]
                                 << " s lost the steps drawn in it";
  }
  // The painter's own stalls, each as many frames as it could have repeated.
  const std::vector<CountingPainter::Step> steps = painter.steps();
  std::size_t sourceRepeats = 0;
  for (std::size_t i = 1; i < steps.size(); ++i)
    sourceRepeats += std::size_t(std::chrono::duration<double>(steps[i].time - steps[i - 1].time).count() * fps);
  std::size_t repeats = 0;
  std::uint32_t previous = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const std::uint32_t number = CountingPainter::numberIn(frames[i], CountingPainter::width);
    EXPECT_FALSE(number > pausedFrom && number < pausedUntil)
        << "frame " << i << " shows step " << number << ", drawn while paused (" << pausedFrom << " to " << pausedUntil
        << ")";
    EXPECT_GE(number, previous) << "frame " << i << " goes back in time";
    if (i > 0 && number == previous) ++repeats;
    previous = number;
  }
  // One repeat may be the frame that saw the resume before the painter's next step.
  EXPECT_LE(repeats, sourceRepeats + 1) << frames.size() << " frames";
}

// Ctrl-C stops and keeps; a second one while the program finishes changes nothing. A display that
// is not there stops the program before anything is written.
TEST_F(RecordIntegrationTest, InterruptKeepsTheRecordingAndABadDisplayLeavesNothing) {
  const ProcessResult result = record({"--fps", "15"}, [&](int pid) {
    ASSERT_FALSE(waitForUnfinishedPackage().empty());
    std::this_thread::sleep_for(1200ms);
    ::kill(pid, SIGINT);
    std::this_thread::sleep_for(30ms);
    ::kill(pid, SIGINT);
  });
  const Json answer = answerOf(result);
  const fs::path package = answer["packagePath"].get<std::string>();
  EXPECT_EQ(packages(), std::vector<fs::path>{package});
  const ProjectManifest manifest = store_.readManifest(ProjectPackage{package});
  EXPECT_EQ(manifest.state, ProjectState::completed);
  EXPECT_GT(seconds(manifest.duration), 0.5);
  EXPECT_GT(answer["videoFrames"].get<std::int64_t>(), 5);

  fs::remove_all(projects());
  testing::ScopedEnvironmentVariable missing("DISPLAY", ":4093");
  const ProcessResult refused = record({"--fps", "15", "--duration", "1"});
  EXPECT_EQ(refused.status, 6) << refused.standardOutput << refused.standardError;
  EXPECT_TRUE(refused.standardOutput.empty() || Json::parse(refused.standardOutput).contains("error"));
  EXPECT_TRUE(packages().empty());
}

// A recorder killed mid-take leaves its package unfinished. Another recorder that starts while the
// first still records leaves that package alone; the next one after the kill completes it from
// the fragments on disk.
TEST_F(RecordIntegrationTest, AKilledRecordingIsRecoveredByTheNextRecordButNotWhileItsRecorderLives) {
  std::optional<testing::BackgroundProcess> killed;
  killed.emplace(std::vector<std::string>{testing::vumoBinary().string(), "record", "--fps", "15", "--duration", "6"},
                 std::vector<std::string>{}, cache_.path() / "killed.log");
  const fs::path unfinished = waitForUnfinishedPackage();
  ASSERT_FALSE(unfinished.empty());
  const auto started = std::chrono::steady_clock::now();

  // A second recorder while the first writes: the live package is not touched.
  const ProcessResult beside = record({"--fps", "15", "--duration", "0.5"});
  const Json besideAnswer = answerOf(beside);
  EXPECT_TRUE(besideAnswer["recoveredProjects"].empty()) << besideAnswer.dump();
  EXPECT_TRUE(fs::is_directory(unfinished));
  ASSERT_TRUE(killed->running());

  std::this_thread::sleep_until(started + 2500ms);
  ::kill(killed->pid(), SIGKILL);
  const double killedAfter = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  ASSERT_TRUE(waitUntil([&] { return !killed->running(); }, 10s));
  killed.reset();
  EXPECT_TRUE(fs::is_directory(unfinished));

  const ProcessResult next = record({"--fps", "15", "--duration", "0.5"});
  const Json answer = answerOf(next);
  ASSERT_EQ(answer["recoveredProjects"].size(), 1u) << answer.dump();
  const Json recovered = answer["recoveredProjects"][0];
  const fs::path recoveredPath = recovered["packagePath"].get<std::string>();
  EXPECT_EQ(recoveredPath.string() + ".tmp", unfinished.string());
  EXPECT_FALSE(fs::exists(unfinished));
  EXPECT_NE(next.standardError.find(recovered["projectID"].get<std::string>()), std::string::npos)
      << next.standardError;

  // The first fragment is cut after a second of picture: a kill at 2.5 s keeps at least that.
  const ProjectSnapshot snapshot = store_.loadSnapshot(ProjectPackage{recoveredPath});
  EXPECT_EQ(snapshot.manifest.state, ProjectState::recovered);
  EXPECT_EQ(snapshot.manifest.metrics.writerStatus, "recoveredFragment");
  EXPECT_GE(seconds(snapshot.manifest.duration), 1.0 - 1.0 / 15);
  EXPECT_LE(seconds(snapshot.manifest.duration), killedAfter);
  EXPECT_EQ(recovered["durationMilliseconds"], snapshot.manifest.duration.cliMilliseconds());
  MediaContainer container = MediaContainer::open(MediaContainer::moviePath(snapshot));
  EXPECT_NEAR(seconds(container.streamTimeRange(0).duration), seconds(snapshot.manifest.duration), 1.0 / 15 + 0.001);

  // Three packages, each finished, the recovered one among them.
  const std::vector<fs::path> all = packages();
  EXPECT_EQ(all.size(), 3u);
  for (const fs::path& package : all) EXPECT_EQ(package.extension(), ".vumo") << package;
}

}  // namespace
}  // namespace vumo
