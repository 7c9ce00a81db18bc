// The one entry point of the executable. Started with the word `cli` it is a headless tool for an
// agent; started any other way it is the desktop application.

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "cli/signal_cancellation.h"
#include "cli/vumo_cli.h"

namespace vumo {

struct VumoEntryPoint {
  static std::string_view versionText() {
    std::string_view version = VUMO_VERSION;
    return version.empty() ? std::string_view("unknown") : version;
  }

  // Built by concatenation, not by the JSON encoder, so it works whatever else is broken.
  static void printVersion() {
    std::string line = "{\"protocolVersion\":1,\"version\":\"";
    line += versionText();
    line += "\"}\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
  }

  static int runCLI(const std::vector<std::string>& arguments) {
    SignalCancellation cancellation;
    VumoCLI cli(cancellation.token());
    return cli.run(arguments);
  }

  static int runApplication() {
    std::fputs(
        "vumo: the desktop application is not available in this build; run `vumo cli` for the agent command line.\n",
        stderr);
    return 1;
  }

  static int main(int argc, char** argv) {
    if (argc < 2 || std::string_view(argv[1]) != "cli") return runApplication();
    std::vector<std::string> arguments(argv + 2, argv + argc);
    if (!arguments.empty() && (arguments.front() == "version" || arguments.front() == "--version")) {
      printVersion();
      return 0;
    }
    return runCLI(arguments);
  }
};

}  // namespace vumo

int main(int argc, char** argv) { return vumo::VumoEntryPoint::main(argc, argv); }
