// The commit lock under neighbours that hold it, plant something under its name, or are told to
// stop while waiting.

#include "project/file_lock.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <thread>

#include "project/project_store_error.h"
#include "support/test_support.h"

namespace vumo {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Holds the lock through an open file description of its own, as another process would.
class Holder {
 public:
  explicit Holder(const fs::path& file) : fd_(::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    EXPECT_EQ(::flock(fd_, LOCK_EX), 0);
  }
  ~Holder() { ::close(fd_); }
  void release() { ::flock(fd_, LOCK_UN); }

 private:
  int fd_;
};

bool isLockUnavailable(const std::function<void()>& action) {
  try {
    action();
  } catch (const ProjectStoreError& e) {
    return e.kind() == ProjectStoreError::Case::timelineLockUnavailable;
  }
  return false;
}

TEST(FileLockTest, OnlyARegularFileIsALockFile) {
  testing::TemporaryDirectory dir;
  const fs::path lock = dir.path() / ".timeline.lock";
  const fs::path target = dir.path() / "elsewhere";
  struct Case {
    const char* name;
    std::function<void()> plant;
    std::function<void()> check;
  };
  const Case cases[] = {
      // The link's target must not be created: a commit could otherwise make files anywhere.
      {"dangling link", [&] { fs::create_symlink(target, lock); }, [&] { EXPECT_FALSE(fs::exists(target)); }},
      {"link to a lock file",
       [&] {
         { std::ofstream(target.string()) << ""; }
         fs::create_symlink(target, lock);
       },
       [] {}},
      {"FIFO", [&] { ASSERT_EQ(::mkfifo(lock.c_str(), 0600), 0); }, [] {}},
      {"folder", [&] { fs::create_directory(lock); }, [] {}},
      {"socket",
       [&] {
         int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
         sockaddr_un address{};
         address.sun_family = AF_UNIX;
         std::string path = lock.string();
         ASSERT_LT(path.size(), sizeof address.sun_path);
         std::copy(path.begin(), path.end(), address.sun_path);
         ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
         ::close(fd);
       },
       [] {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(lock);
    fs::remove_all(target);
    c.plant();
    EXPECT_TRUE(isLockUnavailable([&] { ExclusiveFileLock taken(lock); }));
    c.check();
  }
}

TEST(FileLockTest, AWaitEndsWhenTheHolderLetsGo) {
  testing::TemporaryDirectory dir;
  const fs::path lock = dir.path() / ".timeline.lock";
  Holder holder(lock);
  auto waiter = std::async(std::launch::async, [&] { ExclusiveFileLock taken(lock); });
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout);
  holder.release();
  ASSERT_EQ(waiter.wait_for(10s), std::future_status::ready);
  waiter.get();
}

TEST(FileLockTest, AStopRequestEndsTheWaitWithCancellation) {
  testing::TemporaryDirectory dir;
  const fs::path lock = dir.path() / ".timeline.lock";
  Holder holder(lock);
  std::stop_source stop;
  auto waiter = std::async(std::launch::async, [&] { ExclusiveFileLock taken(lock, stop.get_token()); });
  EXPECT_EQ(waiter.wait_for(100ms), std::future_status::timeout);
  auto requested = std::chrono::steady_clock::now();
  stop.request_stop();
  ASSERT_EQ(waiter.wait_for(10s), std::future_status::ready);
  EXPECT_THROW(waiter.get(), CancelledError);
  // Promptly: the waiter does not sleep through the request.
  EXPECT_LT(std::chrono::steady_clock::now() - requested, 1s);
}

TEST(FileLockTest, AStopRequestedBeforehandTakesNoLock) {
  testing::TemporaryDirectory dir;
  const fs::path lock = dir.path() / ".timeline.lock";
  std::stop_source stop;
  stop.request_stop();
  EXPECT_THROW(ExclusiveFileLock taken(lock, stop.get_token()), CancelledError);
  // Free for the next taker at once: nothing was left locked.
  int fd = ::open(lock.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(::flock(fd, LOCK_EX | LOCK_NB), 0);
  ::close(fd);
}

}  // namespace
}  // namespace vumo
