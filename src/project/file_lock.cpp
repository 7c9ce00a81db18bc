#include "project/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "project/project_store_error.h"

namespace vumo {

ExclusiveFileLock::ExclusiveFileLock(const std::filesystem::path& lockFile, const std::stop_token& stop) {
  (void)stop;
  fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) throw ProjectStoreError::timelineLockUnavailable();
  int rc;
  do {
    rc = ::flock(fd_, LOCK_EX);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    ::close(fd_);
    fd_ = -1;
    throw ProjectStoreError::timelineLockUnavailable();
  }
}

ExclusiveFileLock::~ExclusiveFileLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

}  // namespace vumo
