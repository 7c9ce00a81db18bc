#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace vumo {

// Reads a whole file. Failure is a FileError naming the path.
std::string readFile(const std::filesystem::path& path);

// Replaces `path` atomically: the bytes go to a temporary file in the same folder, which is
// flushed to disk and renamed over the target; the folder is then flushed too, so after a crash
// the file holds either the old or the new bytes, never a mixture.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// Creates a folder and its parents; an existing folder is fine. Failure is a FileError.
void createDirectories(const std::filesystem::path& path);

// The user's application support folder: $XDG_DATA_HOME when set to an absolute path,
// otherwise ~/.local/share. Not created here.
std::filesystem::path applicationSupportDirectory();
// $XDG_DATA_HOME/Vumo: everything the program keeps outside project packages lives here.
std::filesystem::path vumoSupportDirectory();

}  // namespace vumo
