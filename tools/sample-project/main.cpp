// Makes a finished sample project and prints its id. Used by the demo and the command-line
// tests; a real recording takes its place on a machine with a screen.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <string_view>

#include "sample_project.h"

namespace {

constexpr const char* usage =
    "usage: vumo-sample-project [--output <folder>]\n"
    "\n"
    "Generates a finished sample project (a 12 s test pattern, a tone, a voice-like microphone\n"
    "track with pauses and five clicks, made with ffmpeg) and prints its id.\n"
    "\n"
    "  --output <folder>  the projects folder to make it in, created if missing\n"
    "                     (default: $XDG_DATA_HOME/Vumo/Projects, else ~/.local/share/Vumo/Projects)\n"
    "  --help             this text\n";

}  // namespace

int main(int argc, char** argv) {
  std::optional<std::filesystem::path> output;
  for (int i = 1; i < argc; ++i) {
    std::string_view word = argv[i];
    if (word == "--help" || word == "-h") {
      std::fputs(usage, stdout);
      return 0;
    }
    if (word == "--output" && i + 1 < argc && argv[i + 1][0] != 0) {
      output = std::filesystem::absolute(argv[++i]);
      continue;
    }
    std::fprintf(stderr, "vumo-sample-project: unexpected argument: %s\n\n%s", argv[i], usage);
    return 2;
  }
  try {
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
