#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace vumo {

// Reads a whole regular file of at most `maximumBytes` (see shared/document_limits.h). Anything
// else at the path (a FIFO, a socket, a device, a directory, a symbolic link as the last
// component) and a larger file are refused without reading, so a planted file can neither hang
// nor exhaust the reader. Failure is a FileError naming the path and what went wrong.
std::string readFile(const std::filesystem::path& path, std::size_t maximumBytes);

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
