#include "shared/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <fmt/format.h>

#include "shared/error.h"

namespace vumo {

namespace {

[[noreturn]] void throwErrno(std::string_view action, const std::filesystem::path& path, int error) {
  throw FileError(fmt::format("Could not {} {}: {}", action, path.string(), std::strerror(error)));
}

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

}  // namespace

std::string readFile(const std::filesystem::path& path, std::size_t maximumBytes) {
  // Non-blocking, so that opening a FIFO planted under the name cannot stall; regular files
  // ignore the flag.
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
  if (fd.get() < 0) {
    if (errno == ELOOP) throw FileError(fmt::format("Could not read {}: it is a symbolic link", path.string()));
    throwErrno("read", path, errno);
  }
  struct stat status {};
  if (::fstat(fd.get(), &status) != 0) throwErrno("read", path, errno);
  if (!S_ISREG(status.st_mode)) throw FileError(fmt::format("Could not read {}: not a regular file", path.string()));
  if (static_cast<std::uintmax_t>(status.st_size) > maximumBytes)
    throw FileError(fmt::format("Could not read {}: {} bytes is more than the {} allowed", path.string(),
                                status.st_size, maximumBytes));
  std::string bytes;
  bytes.reserve(static_cast<std::size_t>(status.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno("read", path, errno);
    }
    if (n == 0) break;
    // The file may grow while it is read.
    if (bytes.size() + static_cast<std::size_t>(n) > maximumBytes)
      throw FileError(fmt::format("Could not read {}: more than the {} bytes allowed", path.string(), maximumBytes));
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  return bytes;
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::path folder = path.parent_path();
  if (folder.empty()) folder = ".";
  std::string pattern = (folder / ("." + path.filename().string() + ".XXXXXX")).string();
  FileDescriptor fd(::mkostemp(pattern.data(), O_CLOEXEC));
  if (fd.get() < 0) throwErrno("write", path, errno);
  std::filesystem::path temporary = pattern;
  auto fail = [&](int error) {
    ::unlink(temporary.c_str());
    throwErrno("write", path, error);
  };
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t n = ::write(fd.get(), bytes.data() + written, bytes.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(errno);
    }
    written += static_cast<std::size_t>(n);
  }
  if (::fchmod(fd.get(), 0644) != 0 || ::fsync(fd.get()) != 0) fail(errno);
  if (::close(fd.release()) != 0) fail(errno);
  if (::rename(temporary.c_str(), path.c_str()) != 0) fail(errno);
  FileDescriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
}

void createDirectories(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) throw FileError(fmt::format("Could not create {}: {}", path.string(), error.message()));
  if (!std::filesystem::is_directory(path))
    throw FileError(fmt::format("Could not create {}: not a directory", path.string()));
}

std::filesystem::path applicationSupportDirectory() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg != nullptr && xdg[0] == '/') return std::filesystem::path(xdg);
  const char* home = std::getenv("HOME");
  std::filesystem::path base = (home != nullptr && home[0] != 0) ? home : "/";
  return base / ".local" / "share";
}

std::filesystem::path vumoSupportDirectory() { return applicationSupportDirectory() / "Vumo"; }

}  // namespace vumo
