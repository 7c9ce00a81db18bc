#pragma once

// Copies a picture a person chose into the package as a canvas wallpaper: decoded (so a file that
// is not a picture is refused before anything is written), stored as JPEG under the digest of its
// bytes through the project store, and described for the timeline's canvas. The timeline itself
// changes only through the editing session, which the caller asks with the returned description.

#include <filesystem>

#include "timeline/edit_timeline.h"

namespace vumo {

class ProjectStore;
struct ProjectPackage;

// Throws FileError when the file cannot be read (not a regular file, larger than a wallpaper may
// be) or is not a picture, and what the store's write throws.
CanvasBackgroundImage importCanvasBackgroundImage(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file);

}  // namespace vumo
