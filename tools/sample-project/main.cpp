// Makes a finished sample project and prints its id, or writes the sample's microphone sound on its
// own. Used by the demo and the command-line tests; a real recording takes the project's place on
// a machine with a screen, and the sound is what the demo plays to that recording.

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string_view>

#include "sample_project.h"

namespace {

constexpr const char* usage =
    "usage: vumo-sample-project [--output <folder>]\n"
    "       vumo-sample-project --speech-audio <file.wav> [--duration <ms>] [--speech <start>-<end>[,...]]\n"
    "\n"
    "Generates a finished sample project (a 12 s test pattern, a tone, a voice-like microphone\n"
    "track with pauses and five clicks, made with ffmpeg) and prints its id; or writes that voice\n"
    "alone as a 48 kHz mono WAV file, its bursts where --speech puts them.\n"
    "\n"
    "  --output <folder>       the projects folder to make it in, created if missing\n"
    "                          (default: $XDG_DATA_HOME/Vumo/Projects, else ~/.local/share/Vumo/Projects)\n"
    "  --speech-audio <file>   write the voice to this WAV file instead of making a project\n"
    "  --duration <ms>         the sound's length, 1 to 600000 (default: the project's 12000)\n"
    "  --speech <start>-<end>  the milliseconds that hear speech, in order and inside the duration\n"
    "                          (default: the project's 400-3800,6200-8400,10400-11600)\n"
    "  --help                  this text\n";

using Spans = std::vector<std::pair<std::int64_t, std::int64_t>>;

std::optional<std::int64_t> milliseconds(std::string_view text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty()) return std::nullopt;
  return value;
}

// "400-3800,6200-8400": spans that follow one another without overlapping.
std::optional<Spans> parseSpans(std::string_view text) {
  Spans spans;
  for (bool more = true; more;) {
    const std::string_view span = text.substr(0, text.find(','));
    more = span.size() < text.size();
    text.remove_prefix(std::min(text.size(), span.size() + 1));
    const auto dash = span.find('-');
    if (dash == std::string_view::npos) return std::nullopt;
    auto start = milliseconds(span.substr(0, dash));
    auto end = milliseconds(span.substr(dash + 1));
    if (!start || !end || *start >= *end || (!spans.empty() && *start < spans.back().second)) return std::nullopt;
    spans.emplace_back(*start, *end);
  }
  return spans;
}

int usageError(const char* word) {
  std::fprintf(stderr, "vumo-sample-project: unexpected argument: %s\n\n%s", word, usage);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<std::filesystem::path> output, speechAudio;
  std::optional<std::int64_t> duration;
  std::optional<Spans> speech;
  for (int i = 1; i < argc; ++i) {
    std::string_view word = argv[i];
    if (word == "--help" || word == "-h") {
      std::fputs(usage, stdout);
      return 0;
    }
    const bool hasValue = i + 1 < argc && argv[i + 1][0] != 0;
    if (word == "--output" && hasValue) {
      output = std::filesystem::absolute(argv[++i]);
    } else if (word == "--speech-audio" && hasValue) {
      speechAudio = std::filesystem::absolute(argv[++i]);
    } else if (word == "--duration" && hasValue) {
      duration = milliseconds(argv[++i]);
      if (!duration || *duration < 1 || *duration > 600'000) return usageError(argv[i]);
    } else if (word == "--speech" && hasValue) {
      speech = parseSpans(argv[++i]);
      if (!speech) return usageError(argv[i]);
    } else {
      return usageError(argv[i]);
    }
  }
  const vumo::SampleProjectOptions defaults;
  // The project's pointer and clicks are laid out for its own length and speech, so those stay
  // the sound's options only.
  if (!speechAudio && (duration || speech)) return usageError(duration ? "--duration" : "--speech");
  if (speechAudio && output) return usageError("--output");
  const Spans spans = speech.value_or(defaults.speechMilliseconds);
  const vumo::ProjectTime length = duration ? vumo::ProjectTime::fromMilliseconds(*duration) : defaults.duration;
  if (speechAudio && spans.back().second > length.cliMilliseconds()) return usageError("--speech");
  try {
    if (speechAudio) {
      vumo::writeSpeechAudio(*speechAudio, spans, length);
      return 0;
    }
    vumo::ProjectStore store(output);
    vumo::ProjectPackage package = makeSampleProject(store);
    std::printf("%s\n", store.readManifest(package).id.string().c_str());
    if (std::fflush(stdout) != 0) {
      std::fprintf(stderr, "vumo-sample-project: could not write the id: %s\n", std::strerror(errno));
      return 1;
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vumo-sample-project: %s\n", error.what());
    return 1;
  }
}
