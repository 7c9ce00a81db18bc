#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "shared/error.h"

namespace vumo {

// Failures of the system rather than of the file at hand: the process is out of descriptors, the
// system out of memory or open files, the device failed. A caller that turns an unusable file into
// a refusal ("not a project", "invalid document") must not do so for these: the file may be fine.
bool isSystemFailure(int error);

// A FileError whose cause isSystemFailure. It names the path like any FileError.
class SystemFileError : public FileError {
 public:
  using FileError::FileError;
};

// Reads a whole regular file of at most `maximumBytes` (see shared/document_limits.h). Anything
// else at the path (a FIFO, a socket, a device, a directory, a symbolic link as the last
// component) and a larger file are refused without reading, so a planted file can neither hang
// nor exhaust the reader. Failure is a FileError naming the path and what went wrong (a
// SystemFileError when the system failed).
std::string readFile(const std::filesystem::path& path, std::size_t maximumBytes);

// What readFile does, for a reader that keeps its own buffer: opens and checks the file as readFile
// does, then hands out its bytes. The descriptor is closed with the object.
class RegularFileReader {
 public:
  RegularFileReader(const std::filesystem::path& path, std::size_t maximumBytes);
  ~RegularFileReader();
  RegularFileReader(const RegularFileReader&) = delete;
  RegularFileReader& operator=(const RegularFileReader&) = delete;

  // The size when it was opened; the file may still grow while it is read.
  std::size_t sizeAtOpening() const { return sizeAtOpening_; }
  // Reads at most `room` bytes into `into`; 0 at the end. More than `maximumBytes` in all is a
  // FileError, however the file grew.
  std::size_t read(char* into, std::size_t room);

 private:
  std::filesystem::path path_;
  std::size_t maximumBytes_;
  std::size_t sizeAtOpening_ = 0;
  std::size_t readSoFar_ = 0;
  int fd_ = -1;
};

// Replaces `path` atomically: the bytes go to a temporary file in the same folder, which is
// flushed to disk and renamed over the target; the folder is then flushed too, so after a crash
// the file holds either the old or the new bytes, never a mixture. A file that is replaced keeps
// its permission bits; a new one is made with 0666 less the umask, like any file a program makes.
void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes);

// The hidden name that writeFileAtomically stages `target` under in the same folder:
// `.<name>.<eight lower-case hex digits>`, random on every call.
std::string atomicWriteTemporaryName(const std::filesystem::path& target);
// The document such a temporary stands for ("timeline.json" for ".timeline.json.0a1b2c3d"), or
// none when `fileName` is not one. A writer killed before its rename leaves the temporary behind
// for good; the writers that own the document use this to clear up after it.
std::optional<std::string_view> atomicWriteTarget(std::string_view fileName);

// Creates a folder and its parents; an existing folder is fine. Failure is a FileError.
void createDirectories(const std::filesystem::path& path);

// The user's application support folder: $XDG_DATA_HOME when set to an absolute path,
// otherwise ~/.local/share. Not created here.
std::filesystem::path applicationSupportDirectory();
// $XDG_DATA_HOME/Vumo: everything the program keeps outside project packages lives here.
std::filesystem::path vumoSupportDirectory();

}  // namespace vumo
