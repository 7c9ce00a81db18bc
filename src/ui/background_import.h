#pragma once

// Copies a picture or a movie a person chose into the package as a canvas wallpaper: decoded (so a file that
// is not a picture is refused before anything is written), stored as JPEG under the digest of its
// bytes through the project store, and described for the timeline's canvas. The timeline itself
// changes only through the editing session, which the caller asks with the returned description.

#include <filesystem>

#include "timeline/edit_timeline.h"

namespace vumo {

class ProjectStore;
struct MediaModule;
struct ProjectPackage;

// Throws FileError when the file cannot be read (not a regular file, larger than a wallpaper may
// be) or is not a picture, and what the store's write throws.
CanvasBackgroundImage importCanvasBackgroundImage(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file);

// A movie as a looping video wallpaper: `engine` describes it (so a file it cannot play is refused
// before anything is written), and its bytes are stored unchanged under their digest, with the
// size and length of the stream the renderer plays. Throws FileError for a file that cannot be read
// or is no movie the engine plays, CancelledError, and what the store's write throws.
CanvasBackgroundImage importCanvasBackgroundVideo(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file, const MediaModule& engine);

// A picture, or else a movie, whatever the file's name says: pictures are decoded here, movies
// through the media engine, which is loaded only for a file that is no picture (MediaModuleError
// when it cannot be).
CanvasBackgroundImage importCanvasBackground(ProjectStore& store, const ProjectPackage& package,
                                             const std::filesystem::path& file);

}  // namespace vumo
