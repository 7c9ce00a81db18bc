#pragma once

// Files the program reads at run time besides projects: the device frame catalogue and its images
// in `share/vumo`, and the parts of the program it loads on demand (the media engine) in
// `lib/vumo`, both beside `bin/vumo`. The build keeps the same layout (`<build>/share/vumo`,
// `<build>/lib/vumo`), so a program finds them from where it runs, built or installed, and no
// folder of the machine that built it is written into it.

#include <filesystem>
#include <optional>

namespace vumo {

struct ResourceLocator {
  // The resources folder of the running program (see `forExecutable`), read from /proc/self/exe.
  static std::optional<std::filesystem::path> directory();

  // $VUMO_RESOURCE_DIR when set and not empty, whatever it holds (a developer's override); else
  // the first `share/vumo` folder in the executable's folder or one of the folders above it:
  // `<prefix>/share/vumo` for `<prefix>/bin/vumo`, `<build>/share/vumo` for anything built in
  // `<build>`. None when there is no such folder.
  static std::optional<std::filesystem::path> forExecutable(const std::filesystem::path& executable);

  // The folder of the loadable parts, found the same way: $VUMO_MODULE_DIR, else the first
  // `lib/vumo` folder in or above the executable's folder.
  static std::optional<std::filesystem::path> moduleDirectory();
  static std::optional<std::filesystem::path> modulesForExecutable(const std::filesystem::path& executable);
};

}  // namespace vumo
