#pragma once

#include <filesystem>
#include <stop_token>

namespace vumo {

// An exclusive BSD `flock` on a lock file, held for the lifetime of the object. Other processes
// that commit to the same package take the same lock, so it serialises writers across processes;
// within one process the store's single line of execution already does. The lock file is created
// with owner read and write permission and never removed. Only a regular file is a lock file: a
// symbolic link (never followed), a FIFO, a device or a folder under its name, like any other
// failure to open or lock, is ProjectStoreError::timelineLockUnavailable. There is no time-out:
// locks are held for one commit, milliseconds. While it waits it watches `stop`: a stop request
// (also one made before the wait) ends it with CancelledError, before the caller has written
// anything.
class ExclusiveFileLock {
 public:
  explicit ExclusiveFileLock(const std::filesystem::path& lockFile, const std::stop_token& stop = {});
  ~ExclusiveFileLock();
  ExclusiveFileLock(const ExclusiveFileLock&) = delete;
  ExclusiveFileLock& operator=(const ExclusiveFileLock&) = delete;

 private:
  int fd_ = -1;
};

// Taken by a live recording on a file inside its package and held until the recording is finished,
// failed or discarded, so that recovery in another process leaves a package alone while its
// recorder still writes it. A killed recorder's lock goes with its process. The lock file is
// `recording.lock` at the package's root; it survives the rename of a finished package.
class RecordingPackageLock {
 public:
  static constexpr const char* fileName = "recording.lock";

  // Fails with FileError when the file cannot be made or another process holds it.
  explicit RecordingPackageLock(const std::filesystem::path& packageRoot);
  ~RecordingPackageLock();
  RecordingPackageLock(const RecordingPackageLock&) = delete;
  RecordingPackageLock& operator=(const RecordingPackageLock&) = delete;

  // Whether some live process holds the lock of this package. A package without the file, or
  // whose file is no regular file, has no live recorder.
  static bool isHeld(const std::filesystem::path& packageRoot);

 private:
  int fd_ = -1;
};

}  // namespace vumo
