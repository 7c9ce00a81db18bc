// The one entry point of the executable. Started with the word `cli` it is a headless tool for an
// agent; started any other way it is the desktop application.

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_prompt_builder.h"
#include "cli/desktop_recording_platform.h"
#include "cli/export_command.h"
#include "cli/prompt_command.h"
#include "cli/record_command.h"
#include "cli/settings_command.h"
#include "cli/signal_cancellation.h"
#include "cli/vumo_cli.h"
#include "shared/leak_check_defaults.h"

namespace vumo {

struct VumoEntryPoint {
  static std::string_view versionText() {
    std::string_view version = VUMO_VERSION;
    return version.empty() ? std::string_view("unknown") : version;
  }

  // Built by concatenation, not by the JSON encoder, so it works whatever else is broken.
  static int printVersion() {
    std::string line = "{\"protocolVersion\":1,\"version\":\"";
    line += versionText();
    line += "\"}\n";
    try {
      VumoCLI::Streams::process().standardOutput(line);
    } catch (const std::exception& error) {
      return VumoCLI().report(error);
    }
    return 0;
  }

  static int runCLI(const std::vector<std::string>& arguments) {
    SignalCancellation cancellation;
    VumoCLI cli(cancellation.token());
    return cli.run(arguments);
  }

  static int runSettings(const std::vector<std::string>& arguments) {
    SignalCancellation cancellation;
    SettingsCommand settings(cancellation.token(), VumoCLI::Streams::process(), &SettingsCommand::readStandardInput);
    return settings.run(arguments);
  }

  static int runPrompt(const std::vector<std::string>& arguments) {
    SignalCancellation cancellation;
    PromptCommand prompt(cancellation.token(), VumoCLI::Streams::process(), runningExecutablePath());
    return prompt.run(arguments);
  }

  static int runExport(const std::vector<std::string>& arguments) {
    SignalCancellation cancellation;
    ExportCommand exportCommand(cancellation.token(), VumoCLI::Streams::process(), ::isatty(STDERR_FILENO) == 1);
    return exportCommand.run(arguments);
  }

  static int runRecord(const std::vector<std::string>& arguments) {
    RecordSignals signals;
    RecordCommand record(signals, VumoCLI::Streams::process(), ::isatty(STDERR_FILENO) == 1,
                         makeDesktopRecordingPlatform());
    return record.run(arguments);
  }

  static int runApplication() {
    std::fputs(
        "vumo: the desktop application is not available in this build; run `vumo cli` for the agent command line.\n",
        stderr);
    return 1;
  }

  static int main(int argc, char** argv) {
    const std::string_view verb = argc < 2 ? std::string_view() : std::string_view(argv[1]);
    if (verb != "cli" && verb != "settings" && verb != "prompt" && verb != "export" && verb != "record")
      return runApplication();
    // A reader that went away is a failed write (EPIPE), reported like any other, not a silent
    // death by signal.
    std::signal(SIGPIPE, SIG_IGN);
    if (verb == "settings") return runSettings({argv + 2, argv + argc});
    if (verb == "prompt") return runPrompt({argv + 2, argv + argc});
    if (verb == "export") return runExport({argv + 2, argv + argc});
    if (verb == "record") return runRecord({argv + 2, argv + argc});
    std::vector<std::string> arguments(argv + 2, argv + argc);
    if (!arguments.empty() && (arguments.front() == "version" || arguments.front() == "--version")) {
      return printVersion();
    }
    return runCLI(arguments);
  }
};

}  // namespace vumo

int main(int argc, char** argv) { return vumo::VumoEntryPoint::main(argc, argv); }
