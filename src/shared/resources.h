#pragma once

// Files the program reads at run time besides projects: the device frame catalogue and its images
// today. They are installed in `share/vumo` beside `bin/vumo`, and the build keeps the same layout
// (`<build>/share/vumo`), so a program finds them from where it runs, built or installed, and no
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
};

}  // namespace vumo
