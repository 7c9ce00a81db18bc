#include "cli/export_command.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>

#include "cli/cli_errors.h"
#include "cli/media_module_loader.h"
#include "cli/output_destination.h"
#include "cli/verb_arguments.h"
#include "export/export_configuration.h"
#include "export/export_progress.h"
#include "project/project_store.h"
#include "shared/cancellation.h"
#include "shared/json.h"

namespace vumo {

namespace {

using Clock = std::chrono::steady_clock;

template <ExportCommandLineEnum E>
std::string acceptedWords() {
  return joinedNames(ExportCommandLineWords<E>::table);
}

template <ExportCommandLineEnum E>
E parseWord(std::string_view option, std::string_view word) {
  if (auto parsed = parseCommandLineWord<E>(word)) return *parsed;
  throw CLIArgumentError::notOneOf(option, word, acceptedWords<E>());
}

struct ExportRequest {
  std::string projectID;
  std::optional<std::string> output;
  bool replace = false;
  std::optional<ExportPreset> preset;
  std::optional<ExportResolution> resolution;
  std::optional<ExportFrameRate> frameRate;
  std::optional<ExportQuality> quality;
  std::optional<ExportCodec> codec;

  // The preset first, then each option given on its own, in whatever order they were written.
  ExportConfiguration configuration() const {
    ExportConfiguration configuration = preset ? exportPresetConfiguration(*preset) : ExportConfiguration{};
    if (resolution) configuration.resolution = *resolution;
    if (frameRate) configuration.frameRate = *frameRate;
    if (quality) configuration.quality = *quality;
    if (codec) configuration.codec = *codec;
    return configuration;
  }
};

ExportRequest parse(const std::vector<std::string>& arguments) {
  ExportRequest request;
  VerbArguments words(arguments);
  while (words.next()) {
    const std::string& word = words.option();
    if (word == "--out") {
      request.output = words.value();
      if (request.output->empty()) throw CLIArgumentError::invalidValue("--out");
    } else if (word == "--replace") {
      request.replace = true;
    } else if (word == "--preset") {
      request.preset = parseWord<ExportPreset>(word, words.value());
    } else if (word == "--resolution") {
      request.resolution = parseWord<ExportResolution>(word, words.value());
    } else if (word == "--fps") {
      request.frameRate = parseWord<ExportFrameRate>(word, words.value());
    } else if (word == "--quality") {
      request.quality = parseWord<ExportQuality>(word, words.value());
    } else if (word == "--codec") {
      request.codec = parseWord<ExportCodec>(word, words.value());
    } else {
      throw CLIArgumentError::unexpectedArgument(word);
    }
  }
  request.projectID = words.projectID();
  return request;
}

// The film's default name: the project's title with what a file name cannot hold replaced.
std::string defaultFileName(const ProjectSnapshot& snapshot) {
  std::string name;
  for (char c : snapshot.manifest.source.title) name += (c == '/' || c == '\0' || c == '\n' || c == '\r') ? '-' : c;
  if (name.empty() || name.front() == '.') name = "Vumo " + snapshot.manifest.id.string().substr(0, 8) + name;
  // Leaves room for the extension and the temporary suffix within a 255-byte file name; cuts only
  // between UTF-8 characters.
  constexpr std::size_t limit = 180;
  if (name.size() > limit) {
    std::size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80) --cut;
    name.resize(cut);
  }
  return name + ".mp4";
}

void checkExtension(const std::filesystem::path& output) {
  std::string extension = output.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension != ".mp4" && extension != ".mov") throw CLIArgumentError::invalidValue("--out必须为mp4/mov");
}

// Progress on standard error: a bar redrawn in place on a terminal, otherwise one line a second so
// that a log stays readable.
class ProgressPrinter {
 public:
  ProgressPrinter(std::function<void(std::string_view)> write, bool terminal)
      : write_(std::move(write)), terminal_(terminal), start_(Clock::now()) {}

  void update(const ProjectExportProgress& progress) {
    const auto now = Clock::now();
    const auto phase = parseName<ExportPhase>(progress.phase).value_or(ExportPhase::rendering);
    if (phase == ExportPhase::rendering && !renderingStart_) renderingStart_ = now;
    const ExportProgressUpdate update{phase, progress.completedFrames, progress.totalFrames};
    const double elapsed = ExportTimeEstimator::elapsedSeconds(start_, now);
    const std::optional<double> remaining = estimator_.estimatedRemainingSeconds(update, elapsed);
    const bool final = phase != ExportPhase::rendering || progress.completedFrames >= progress.totalFrames;
    if (!terminal_ && !final && lastLine_ && now - *lastLine_ < std::chrono::seconds(1)) return;
    lastLine_ = now;

    double rate = 0;
    if (renderingStart_) {
      const double seconds = ExportTimeEstimator::elapsedSeconds(*renderingStart_, now);
      if (seconds > 0) rate = double(progress.completedFrames) / seconds;
    }
    if (phase != ExportPhase::rendering) {
      writeLine(phase == ExportPhase::preparing
                    ? progress.phase
                    : fmt::format("{:<10} {} frames", progress.phase, progress.totalFrames));
      return;
    }
    std::string line = fmt::format("{:<10}", progress.phase);
    if (terminal_) {
      constexpr int width = 30;
      const int filled = static_cast<int>(std::lround(update.fraction() * width));
      line += " [" + std::string(std::clamp(filled, 0, width), '#') +
              std::string(width - std::clamp(filled, 0, width), '-') + "]";
    }
    line += fmt::format(" {}/{} frames  {:.1f} fps", progress.completedFrames, progress.totalFrames, rate);
    line +=
        "  " +
        (remaining ? ExportDurationFormatter::string(*remaining) : std::string(ExportDurationFormatter::placeholder)) +
        " left";
    writeLine(line);
  }

  void writeLine(const std::string& line) {
    if (terminal_) {
      // Clears what a longer previous line left behind.
      write_("\r" + line + "\x1b[K");
      drewBar_ = true;
    } else {
      write_(line + "\n");
    }
  }

  // Ends the bar's line so that whatever follows starts on its own.
  void finish() {
    if (drewBar_) write_("\n");
    drewBar_ = false;
  }

 private:
  std::function<void(std::string_view)> write_;
  bool terminal_;
  Clock::time_point start_;
  std::optional<Clock::time_point> renderingStart_;
  std::optional<Clock::time_point> lastLine_;
  ExportTimeEstimator estimator_;
  bool drewBar_ = false;
};

}  // namespace

ExportCommand::ExportCommand(std::stop_token cancellation, VumoCLI::Streams streams, bool progressOnTerminal,
                             ExporterFactory makeExporter)
    : cancellation_(std::move(cancellation)),
      streams_(std::move(streams)),
      progressOnTerminal_(progressOnTerminal),
      makeExporter_(std::move(makeExporter)) {
  if (!makeExporter_) makeExporter_ = [] { return MediaModuleLoader::load().makeExporter(); };
}

std::string ExportCommand::usageText() {
  return "usage: vumo export <id-prefix> [options]\n"
         "\n"
         "Renders the edited project into a film (H.264 or HEVC with AAC sound) and prints one JSON\n"
         "object: outputPath, sizeBytes, durationMilliseconds, frameCount, encoder. Progress goes to\n"
         "standard error; Ctrl-C cancels and leaves no file behind.\n"
         "\n"
         "  --out FILE          .mp4 or .mov; a bare name lands in the exports folder (default: the\n"
         "                      project's title, .mp4, in the exports folder)\n"
         "  --replace           overwrite an existing file (only once the new film is complete)\n"
         "  --preset P          " +
         acceptedWords<ExportPreset>() +
         " (default: standard)\n"
         "  --resolution R      " +
         acceptedWords<ExportResolution>() +
         "\n"
         "  --fps F             " +
         acceptedWords<ExportFrameRate>() +
         " (source exports at 60)\n"
         "  --quality Q         " +
         acceptedWords<ExportQuality>() +
         "\n"
         "  --codec C           " +
         acceptedWords<ExportCodec>() +
         "\n"
         "  --help              this text\n"
         "\n"
         "Options given with a preset override the preset's value. The raw values of a saved\n"
         "configuration (p1080, fps30, highQuality) are accepted too.";
}

int ExportCommand::run(const std::vector<std::string>& arguments) {
  VumoCLI reporter(cancellation_, streams_);
  ProgressPrinter printer(streams_.standardError, progressOnTerminal_);
  try {
    for (const std::string& word : arguments) {
      if (word == "--help" || word == "-h") {
        streams_.standardOutput(usageText() + "\n");
        return 0;
      }
    }
    if (arguments.empty()) throw CLIArgumentError::missingValue("<id-prefix>");
    const ExportRequest request = parse(arguments);
    const ExportConfiguration configuration = request.configuration();

    // As with `frame`: a named file that exists is refused before the project is even looked up.
    std::optional<std::filesystem::path> output;
    if (request.output) output = prepareOutputPath(std::filesystem::path(*request.output), request.replace);
    throwIfCancelled(cancellation_);
    ProjectStore store(std::nullopt, cancellation_);
    ProjectPackage package = store.project(request.projectID);
    ProjectSnapshot snapshot = store.loadSnapshot(package);
    if (output) checkExtension(*output);
    // A choice the canvas cannot honour is refused before anything is written.
    (void)configuration.resolved(snapshot.manifest.encodedPixelSize, snapshot.timeline.canvas.aspectRatio);
    if (!output) output = prepareOutputPath(std::filesystem::path(defaultFileName(snapshot)), request.replace);
    throwIfCancelled(cancellation_);

    const std::shared_ptr<ProjectExporting> exporter = makeExporter_();
    const ProjectExportRequest exportRequest{
        std::string(nameOf(configuration.resolution)), std::string(nameOf(configuration.frameRate)),
        std::string(nameOf(configuration.quality)), std::string(nameOf(configuration.codec))};
    const ExportedFilm film = exporter->exportProject(
        snapshot, *output, exportRequest, [&](const ProjectExportProgress& progress) { printer.update(progress); },
        cancellation_);
    printer.finish();

    Json answer = {{"protocolVersion", 1},
                   {"projectID", snapshot.manifest.id.string()},
                   {"outputPath", film.outputPath.string()},
                   {"sizeBytes", film.sizeBytes},
                   {"durationMilliseconds", film.duration.cliMilliseconds()},
                   {"frameCount", film.frameCount},
                   {"framesPerSecond", film.framesPerSecond},
                   {"width", film.outputSize.width},
                   {"height", film.outputSize.height},
                   {"codec", nameOf(configuration.codec)},
                   {"encoder", film.encoder}};
    if (film.requestedOddSize) {
      answer["note"] = fmt::format("原始尺寸 {}×{} 不是偶数，已按 {}×{} 编码", film.requestedOddSize->width,
                                   film.requestedOddSize->height, film.outputSize.width, film.outputSize.height);
    }
    reporter.writeJSON(answer);
    return 0;
  } catch (const std::exception& error) {
    printer.finish();
    return reporter.report(error);
  }
}

}  // namespace vumo
