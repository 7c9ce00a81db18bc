#pragma once

#include <filesystem>

#include "media/media_module.h"

namespace vumo {

// Opens the media engine (see media/media_module.h) once per process, from the folder of loadable
// parts that ResourceLocator names. Throws MediaModuleError when there is no such folder, the
// module cannot be loaded, lacks its entry point or was built for another interface.
struct MediaModuleLoader {
  static const MediaModule& load();
  // The same from an explicit file; not cached.
  static const MediaModule& loadFrom(const std::filesystem::path& file);
};

}  // namespace vumo
