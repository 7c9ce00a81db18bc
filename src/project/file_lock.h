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

}  // namespace vumo
