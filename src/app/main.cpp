// The one entry point of the executable. Started with the word `cli` it is a headless tool for an
// agent; started any other way it is the desktop application.

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xcb/xcb.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
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
#include "shared/resources.h"
#include "ui/application_module.h"

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

  // Exit status of a desktop start without a desktop to show it on.
  static constexpr int noDisplayStatus = 6;

  // Whether a window could be shown at all: an X server that accepts a connection, or a Wayland
  // socket that exists. Asked before Qt is loaded, whose platform plugin would abort the process
  // without one.
  static bool displayReachable() {
    const char* wayland = std::getenv("WAYLAND_DISPLAY");
    if (wayland != nullptr && wayland[0] != 0) {
      std::filesystem::path socket = wayland;
      if (socket.is_relative()) {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        socket = std::filesystem::path(runtime != nullptr ? runtime : "") / socket;
      }
      struct stat status {};
      if (socket.is_absolute() && ::stat(socket.c_str(), &status) == 0 && S_ISSOCK(status.st_mode)) return true;
    }
    const char* x11 = std::getenv("DISPLAY");
    if (x11 == nullptr || x11[0] == 0) return false;
    xcb_connection_t* connection = ::xcb_connect(x11, nullptr);
    const bool reachable = ::xcb_connection_has_error(connection) == 0;
    ::xcb_disconnect(connection);
    return reachable;
  }

  static int printHeadlessUsage() {
    std::fputs(
        "usage: vumo                 start the desktop application\n"
        "       vumo cli COMMAND     the command line for agents (vumo cli help)\n"
        "       vumo record ...      record the screen (vumo record --help)\n"
        "       vumo export ...      export a project's film (vumo export --help)\n"
        "       vumo prompt ...      the briefing for an editing agent\n"
        "       vumo settings ...    change a project's settings\n"
        "vumo: no display is reachable (neither DISPLAY nor WAYLAND_DISPLAY names one), so the desktop application "
        "cannot start; without a display, use `vumo cli ...`, `vumo record` and `vumo export`.\n",
        stderr);
    return noDisplayStatus;
  }

  static int applicationUnavailable(const std::string& reason) {
    std::fprintf(stderr, "vumo: the desktop application could not be loaded: %s\n", reason.c_str());
    return 1;
  }

  // The application is a loadable part (see ui/application_module.h) found like the media engine.
  static int runApplication(int argc, char** argv) {
    if (!displayReachable()) return printHeadlessUsage();
    const auto folder = ResourceLocator::moduleDirectory();
    if (!folder) return applicationUnavailable("no lib/vumo folder beside the program");
    const std::filesystem::path file = *folder / ApplicationModule::fileName;
    // Never closed: Qt's threads and atexit handlers live as long as the process.
    void* handle = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* reason = ::dlerror();
      return applicationUnavailable(reason != nullptr ? reason : file.string());
    }
    auto entry = reinterpret_cast<ApplicationModuleEntryPoint>(::dlsym(handle, ApplicationModule::entryPointName));
    if (entry == nullptr) return applicationUnavailable(file.string() + " has no entry point");
    const ApplicationModule* module = entry();
    if (module == nullptr || module->interfaceVersion != ApplicationModule::currentInterfaceVersion ||
        module->run == nullptr)
      return applicationUnavailable(file.string() + " was built for another version of Vumo");
    return module->run(argc, argv);
  }

  static int main(int argc, char** argv) {
    const std::string_view verb = argc < 2 ? std::string_view() : std::string_view(argv[1]);
    if (verb != "cli" && verb != "settings" && verb != "prompt" && verb != "export" && verb != "record")
      return runApplication(argc, argv);
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
