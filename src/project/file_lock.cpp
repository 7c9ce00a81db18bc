#include "project/file_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "project/project_store_error.h"
#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

namespace {

// flock cannot be waited on together with anything else, so a held lock is retried. The pause
// grows from one millisecond, so a lock freed at once costs almost nothing, to a limit that keeps
// a waiter a few dozen wake-ups a second at most.
constexpr auto firstPause = std::chrono::milliseconds(1);
constexpr auto longestPause = std::chrono::milliseconds(25);

// Sleeps for `pause` unless `stop` is requested first; the request ends the sleep at once.
void pauseUnlessStopped(const std::stop_token& stop, std::chrono::milliseconds pause) {
  std::mutex mutex;
  std::condition_variable_any wake;
  std::unique_lock lock(mutex);
  wake.wait_for(lock, stop, pause, [] { return false; });
}

}  // namespace

ExclusiveFileLock::ExclusiveFileLock(const std::filesystem::path& lockFile, const std::stop_token& stop) {
  // A symbolic link planted under the lock's name could make the commit create or lock a file
  // anywhere; a FIFO or device could stall the open. Neither is a lock file.
  fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
  if (fd_ < 0) throw ProjectStoreError::timelineLockUnavailable();
  struct stat status {};
  if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd_);
    fd_ = -1;
    throw ProjectStoreError::timelineLockUnavailable();
  }
  auto pause = firstPause;
  for (;;) {
    if (stop.stop_requested()) {
      ::close(fd_);
      fd_ = -1;
      throw CancelledError();
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
    if (errno != EWOULDBLOCK && errno != EINTR) {
      ::close(fd_);
      fd_ = -1;
      throw ProjectStoreError::timelineLockUnavailable();
    }
    pauseUnlessStopped(stop, pause);
    pause = std::min(pause * 2, longestPause);
  }
}

ExclusiveFileLock::~ExclusiveFileLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

namespace {

// Opened like a lock file of the store: never through a symbolic link, never blocking on a FIFO.
int openRecordingLock(const std::filesystem::path& packageRoot, int flags) {
  const int fd = ::open((packageRoot / RecordingPackageLock::fileName).c_str(),
                        flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0600);
  if (fd < 0) return -1;
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

RecordingPackageLock::RecordingPackageLock(const std::filesystem::path& packageRoot) {
  fd_ = openRecordingLock(packageRoot, O_RDWR | O_CREAT);
  if (fd_ < 0)
    throw SystemFileError("Could not create the recording lock in " + packageRoot.string() + ": " +
                          std::strerror(errno));
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(fd_);
    fd_ = -1;
    throw SystemFileError("Could not take the recording lock in " + packageRoot.string() + ": " + std::strerror(error));
  }
}

RecordingPackageLock::~RecordingPackageLock() {
  if (fd_ >= 0) {
    ::flock(fd_, LOCK_UN);
    ::close(fd_);
  }
}

bool RecordingPackageLock::isHeld(const std::filesystem::path& packageRoot) {
  const int fd = openRecordingLock(packageRoot, O_RDONLY);
  if (fd < 0) return false;
  // A shared lock conflicts with the recorder's exclusive one and with nothing else.
  const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return held;
}

}  // namespace vumo
