#pragma once

// The desktop application as a part of the program loaded only when it starts without a verb. Qt
// brings its own long list of shared libraries; linked into the executable they would slow every
// `vumo cli` call. The application is built as `lib/vumo/vumo-ui.so` beside the media engine and
// the entry point opens it through this one structure.

namespace vumo {

struct ApplicationModule {
  // Raised whenever a member changes meaning.
  static constexpr int currentInterfaceVersion = 1;
  static constexpr const char* fileName = "vumo-ui.so";
  static constexpr const char* entryPointName = "vumoApplicationModule";

  int interfaceVersion = currentInterfaceVersion;
  // Runs the application until it quits and returns the process's exit status. `argv` is the
  // process's own, kept alive by the caller for the whole run.
  int (*run)(int argc, char** argv) = nullptr;
};

using ApplicationModuleEntryPoint = const ApplicationModule* (*)();

}  // namespace vumo
