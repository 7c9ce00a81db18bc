#include "cli/record_command.h"

#include <fmt/format.h>

#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <mutex>
#include <optional>

#include "cli/cli_errors.h"
#include "cli/recording_recovery.h"
#include "cli/recording_start.h"
#include "cli/verb_arguments.h"
#include "project/project_store.h"
#include "shared/error.h"
#include "shared/json.h"

namespace vumo {

namespace {

using Clock = std::chrono::steady_clock;

struct RecordRequest {
  bool listSources = false;
  RecordSourceRequest source;
  RecordStreamRequest streams;
  std::optional<double> durationSeconds;
  std::optional<std::string> title;
};

template <class Integer>
Integer parseInteger(std::string_view option, std::string_view text, int base = 10) {
  Integer value{};
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size())
    throw CLIArgumentError::invalidValue(std::string(option));
  return value;
}

// X,Y,W,H in pixels of the display, each an integer, the size positive.
RectValue parseArea(std::string_view text) {
  double parts[4];
  for (int i = 0; i < 4; ++i) {
    const std::size_t comma = text.find(',');
    if ((i < 3) != (comma != std::string_view::npos)) throw CLIArgumentError::invalidValue("--area");
    parts[i] = double(parseInteger<std::int32_t>("--area", text.substr(0, comma)));
    text = i < 3 ? text.substr(comma + 1) : std::string_view();
  }
  if (parts[0] < 0 || parts[1] < 0 || parts[2] < 2 || parts[3] < 2) throw CLIArgumentError::invalidValue("--area");
  return {parts[0], parts[1], parts[2], parts[3]};
}

RecordRequest parse(const std::vector<std::string>& arguments) {
  RecordRequest request;
  VerbArguments words(arguments);
  int sourcesNamed = 0;
  while (words.next()) {
    const std::string& word = words.option();
    if (word == "--list-sources") {
      request.listSources = true;
    } else if (word == "--display") {
      ++sourcesNamed;
      request.source.kind = CaptureSourceKind::display;
      request.source.display = words.value();
    } else if (word == "--window") {
      ++sourcesNamed;
      request.source.kind = CaptureSourceKind::window;
      // Without an id the desktop's own dialog picks the window (the portal).
      if (std::optional<std::string> id = words.optionalValue()) {
        // xwininfo and xdotool print window ids in hexadecimal.
        request.source.window = id->starts_with("0x") || id->starts_with("0X")
                                    ? parseInteger<std::uint32_t>("--window", id->substr(2), 16)
                                    : parseInteger<std::uint32_t>("--window", *id);
      }
    } else if (word == "--area") {
      ++sourcesNamed;
      request.source.kind = CaptureSourceKind::area;
      request.source.area = parseArea(words.value());
    } else if (word == "--device") {
      ++sourcesNamed;
      request.source.kind = CaptureSourceKind::device;
      request.source.devicePath = words.value();
      if (request.source.devicePath->empty()) throw CLIArgumentError::invalidValue("--device");
    } else if (word == "--backend") {
      const std::string& backend = words.value();
      request.source.backend = parseName<RecordingBackend>(backend);
      if (!request.source.backend)
        throw CLIArgumentError::notOneOf(word, backend, joinedNames(EnumNames<RecordingBackend>::table));
    } else if (word == "--choose-source") {
      request.source.chooseSource = true;
    } else if (word == "--fps") {
      request.streams.framesPerSecond = parseInteger<int>("--fps", words.value());
      if (request.streams.framesPerSecond < 1 || request.streams.framesPerSecond > 240)
        throw CLIArgumentError::invalidValue("--fps");
    } else if (word == "--system-audio") {
      request.streams.systemAudio = true;
    } else if (word == "--microphone") {
      request.streams.microphone = true;
      request.streams.microphoneSource = words.optionalValue();
    } else if (word == "--camera") {
      request.streams.camera = true;
      request.streams.cameraPath = words.optionalValue();
    } else if (word == "--duration") {
      const std::string& text = words.value();
      double seconds = 0;
      auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
      if (error != std::errc() || end != text.data() + text.size() || !(seconds > 0) || seconds > 86'400)
        throw CLIArgumentError::invalidValue("--duration");
      request.durationSeconds = seconds;
    } else if (word == "--name") {
      request.title = words.value();
      if (request.title->empty()) throw CLIArgumentError::invalidValue("--name");
    } else {
      throw CLIArgumentError::unexpectedArgument(word);
    }
  }
  if (words.hasProjectID()) throw CLIArgumentError::unexpectedArgument(words.projectID());
  request.source.framesPerSecond = request.streams.framesPerSecond;
  if (sourcesNamed > 1) throw CLIArgumentError::invalidValue("--display|--window|--area|--device");
  if (request.source.window && *request.source.window == 0) throw CLIArgumentError::invalidValue("--window");
  return request;
}

// Packages that a killed recorder left unfinished are completed before this recording makes its
// own: the headless program has no start-up screen to offer them on. A package whose recorder
// still runs is held by its lock and left alone. One that cannot be completed stays as it is; the
// recording asked for goes ahead.
Json recoverUnfinishedRecordings(ProjectStore& store, const MediaProbing& probe,
                                 const std::function<void(std::string_view)>& writeError) {
  Json recovered = Json::array();
  const InterruptedRecordingRecovery result = recoverInterruptedRecordings(store, probe);
  if (result.searchFailure) {
    writeError(fmt::format("vumo record: could not look for unfinished recordings: {}\n", *result.searchFailure));
    return recovered;
  }
  for (const InterruptedRecordingOutcome& outcome : result.outcomes) {
    const RecoverableProject& candidate = outcome.candidate;
    if (!outcome.recovered) {
      writeError(fmt::format("vumo record: could not recover the interrupted recording {}: {}\n",
                             candidate.package.rootPath.string(), outcome.failure));
      continue;
    }
    writeError(fmt::format("vumo record: recovered the interrupted recording {} ({} ms) as {}\n",
                           candidate.manifest.id.string(), candidate.mediaDuration.cliMilliseconds(),
                           outcome.recovered->rootPath.string()));
    recovered.push_back({{"projectID", candidate.manifest.id.string()},
                         {"packagePath", outcome.recovered->rootPath.string()},
                         {"durationMilliseconds", candidate.mediaDuration.cliMilliseconds()}});
  }
  return recovered;
}

std::string clockText(ProjectTime elapsed) {
  const std::int64_t tenths = std::max<std::int64_t>(elapsed.nanoseconds, 0) / 100'000'000;
  return fmt::format("{:02}:{:02}.{}", tenths / 600, (tenths / 10) % 60, tenths % 10);
}

// The live line on standard error: redrawn in place on a terminal, otherwise one line a second.
class StatusPrinter {
 public:
  StatusPrinter(std::function<void(std::string_view)> write, bool terminal)
      : write_(std::move(write)), terminal_(terminal) {}

  void update(const RecordingLiveStatus& status, std::int64_t frames, std::int64_t dropped) {
    const auto now = Clock::now();
    const auto interval = terminal_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(1000);
    if (last_ && now - *last_ < interval && status.transportState == lastState_) return;
    last_ = now;
    lastState_ = status.transportState;
    std::string line = fmt::format("{:<9} {}  {} frames  {} dropped", nameOf(status.transportState),
                                   clockText(status.elapsed), frames, dropped);
    if (status.microphoneLevel) {
      const int bars = std::clamp(int(std::lround(*status.microphoneLevel * 10)), 0, 10);
      line += "  mic [" + std::string(bars, '#') + std::string(10 - bars, '-') + "]";
    }
    if (status.webcamState == RecordingWebcamState::interrupted) line += "  camera interrupted";
    writeLine(line);
  }

  void message(const std::string& text) {
    finish();
    write_(text + "\n");
  }

  void finish() {
    if (drew_) write_("\n");
    drew_ = false;
  }

 private:
  void writeLine(const std::string& line) {
    if (terminal_) {
      write_("\r" + line + "\x1b[K");
      drew_ = true;
    } else {
      write_(line + "\n");
    }
  }

  std::function<void(std::string_view)> write_;
  bool terminal_;
  std::optional<Clock::time_point> last_;
  RecordingTransportState lastState_ = RecordingTransportState::recording;
  bool drew_ = false;
};

}  // namespace

RecordCommand::RecordCommand(RecordControls& controls, VumoCLI::Streams streams, bool statusOnTerminal,
                             std::unique_ptr<RecordingPlatform> platform, FreeSpaceGuard::Settings freeSpace)
    : controls_(controls),
      streams_(std::move(streams)),
      statusOnTerminal_(statusOnTerminal),
      platform_(std::move(platform)),
      freeSpace_(std::move(freeSpace)) {}

std::string RecordCommand::usageText() {
  return "usage: vumo record [source] [options]\n"
         "       vumo record --list-sources\n"
         "\n"
         "Records the screen (without the pointer, which is kept as data and drawn again when the\n"
         "film is edited and exported), the pointer's moves and clicks, and the chosen sound and\n"
         "camera into a new project, then makes its first timeline with zooms at the clicks. A\n"
         "status line goes to standard error; at the end one JSON object with the project's id and\n"
         "package path goes to standard output.\n"
         "\n"
         "Source (one at most; default: the whole default display):\n"
         "  --display NAME      a display or monitor by name (see --list-sources)\n"
         "  --window ID         a top-level window by id (decimal or 0x hexadecimal); it keeps\n"
         "                      recording when covered\n"
         "  --area X,Y,W,H      a rectangle of the default display, in pixels\n"
         "  --device PATH       a camera or USB capture device (/dev/videoN) as the picture\n"
         "On a Wayland session the desktop's own dialog picks the monitor (--display, --area) or\n"
         "the window (--window without an id) once, and is remembered; --choose-source asks again.\n"
         "Options:\n"
         "  --backend B         x11 or portal (default: the portal on a Wayland session, else x11)\n"
         "  --choose-source     ask the desktop's dialog again instead of the remembered source\n"
         "  --fps N             frames per second, 1 to 240 (default 60)\n"
         "  --system-audio      record what the computer plays (the default output's monitor)\n"
         "  --microphone [SRC]  record the default microphone, or the named PulseAudio source\n"
         "  --camera [PATH]     record a camera as a track of its own (default: the first one)\n"
         "  --duration SECONDS  stop by itself after this much recording (pauses not counted)\n"
         "  --name TITLE        the project's title\n"
         "  --list-sources      print the displays, windows, audio sources and video devices\n"
         "  --help              this text\n"
         "\n"
         "A recording needs 1 GiB free in the projects folder to start, and stops and is kept\n"
         "(with a note in the answer) when less than that is left.\n"
         "Ctrl-C or SIGTERM stops and keeps the recording (status 0); before the first frame it\n"
         "cancels and leaves nothing (130). SIGUSR1 pauses and resumes; the pause leaves no gap.\n"
         "A killed recording is recovered by the next vumo record, which lists it in its answer.";
}

int RecordCommand::run(const std::vector<std::string>& arguments) {
  VumoCLI reporter({}, streams_);
  StatusPrinter printer(streams_.standardError, statusOnTerminal_);
  try {
    for (const std::string& word : arguments) {
      if (word == "--help" || word == "-h") {
        streams_.standardOutput(usageText() + "\n");
        return 0;
      }
    }
    const RecordRequest request = parse(arguments);
    if (request.listSources) {
      // Only the backend may be named beside it.
      if (arguments.size() != (request.source.backend ? 3u : 1u))
        throw CLIArgumentError::invalidValue("--list-sources");
      Json answer = {{"protocolVersion", 1}};
      platform_->listSources(request.source, answer);
      reporter.writeJSON(answer);
      return 0;
    }

    // Refused before the person is asked for a source: with no room there is nothing to choose.
    ProjectStore store;
    FreeSpaceGuard freeSpace(store.projectsDirectoryPath(), freeSpace_);
    freeSpace.requireRoomToStart();

    // The desktop may end a shared source ("stop sharing"): that finishes the recording as Ctrl-C does.
    platform_->onSourceEnded([this] { controls_.post(RecordControlEvent::stop); });
    CaptureSourceDescriptor source = platform_->resolve(request.source, controls_.stopRequested());
    if (request.title) source.title = *request.title;
    const Json recoveredProjects =
        recoverUnfinishedRecordings(store, platform_->recordingMediaProbe(), streams_.standardError);

    // A stop asked for while the streams open is seen by the loop's first wait.
    std::atomic<bool> failed = false;
    RecordingSessionSettings settings;
    settings.failureHandler = [&](const std::string&) {
      failed = true;
      controls_.wake();
    };
    StartedRecording started = startRecording(*platform_, store, source, request.streams, std::move(settings));
    std::unique_ptr<ScreenRecordingSession>& session = started.session;
    std::vector<std::string>& notes = started.notes;
    for (const std::string& note : notes) printer.message("note: " + note);

    const std::optional<std::int64_t> durationNanoseconds =
        request.durationSeconds ? std::optional<std::int64_t>(std::llround(*request.durationSeconds * 1e9))
                                : std::nullopt;
    for (;;) {
      const RecordingLiveStatus status = session->liveStatus();
      printer.update(status, session->framesHandedOver(), session->metrics().droppedVideoFrames);
      if (failed) break;
      if (durationNanoseconds && status.elapsed.nanoseconds >= *durationNanoseconds) break;
      if (freeSpace.ranShort()) {
        notes.emplace_back(recording_messages::stoppedForFreeSpace);
        printer.message("note: " + notes.back());
        break;
      }
      const std::optional<RecordControlEvent> event = controls_.wait(std::chrono::milliseconds(20));
      if (!event) continue;
      if (*event == RecordControlEvent::togglePause) {
        if (status.transportState == RecordingTransportState::recording) {
          session->pause();
        } else {
          session->resume();
        }
        continue;
      }
      if (!session->hasFirstFrame()) {
        session->discard();
        throw CancelledError();
      }
      break;
    }

    controls_.finishing([this](RecordControlEvent) {
      streams_.standardError("\nvumo record: already finishing the recording; it will be kept\n");
    });
    printer.message("finishing the recording...");
    RecordingSessionResult result;
    try {
      result = session->stop();
    } catch (const std::exception& error) {
      // The package stays as it is, marked failed, for recovery to take up.
      session->fail(error.what());
      throw;
    }
    Json answer = {{"protocolVersion", 1},
                   {"projectID", result.snapshot.manifest.id.string()},
                   {"packagePath", result.package.rootPath.string()},
                   {"title", result.snapshot.manifest.source.title},
                   {"durationMilliseconds", result.snapshot.manifest.duration.cliMilliseconds()},
                   {"width", result.snapshot.manifest.encodedPixelSize.width},
                   {"height", result.snapshot.manifest.encodedPixelSize.height},
                   {"framesPerSecond", request.streams.framesPerSecond},
                   {"videoFrames", result.snapshot.manifest.metrics.videoFrames},
                   {"droppedVideoFrames", result.snapshot.manifest.metrics.droppedVideoFrames},
                   {"mouseEvents", result.snapshot.manifest.metrics.mouseEvents},
                   {"zooms", result.snapshot.timeline.zooms.size()},
                   {"recoveredProjects", recoveredProjects},
                   {"notes", notes}};
    reporter.writeJSON(answer);
    return 0;
  } catch (const std::exception& error) {
    printer.finish();
    return reporter.report(error);
  }
}

}  // namespace vumo
