#include "shared/files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>

#include "shared/error.h"

namespace vumo {

namespace {

[[noreturn]] void throwErrno(std::string_view action, const std::filesystem::path& path, int error) {
  std::string text = fmt::format("Could not {} {}: {}", action, path.string(), std::strerror(error));
  if (isSystemFailure(error)) throw SystemFileError(text);
  throw FileError(text);
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

bool isSystemFailure(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == EIO || error == ENOSPC || error == EDQUOT ||
         error == ENOBUFS;
}

RegularFileReader::RegularFileReader(const std::filesystem::path& path, std::size_t maximumBytes)
    : path_(path), maximumBytes_(maximumBytes) {
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
  sizeAtOpening_ = static_cast<std::size_t>(status.st_size);
  fd_ = fd.release();
}

RegularFileReader::~RegularFileReader() { ::close(fd_); }

std::size_t RegularFileReader::read(char* into, std::size_t room) {
  for (;;) {
    ssize_t n = ::read(fd_, into, room);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throwErrno("read", path_, errno);
    readSoFar_ += static_cast<std::size_t>(n);
    if (readSoFar_ > maximumBytes_)
      throw FileError(fmt::format("Could not read {}: more than the {} bytes allowed", path_.string(), maximumBytes_));
    return static_cast<std::size_t>(n);
  }
}

std::string readFile(const std::filesystem::path& path, std::size_t maximumBytes) {
  RegularFileReader file(path, maximumBytes);
  // One byte more than the size, so the end is seen without growing.
  std::string bytes(file.sizeAtOpening() + 1, '\0');
  std::size_t length = 0;
  for (;;) {
    if (length == bytes.size()) bytes.resize(bytes.size() * 2);  // the file grew since it was opened
    std::size_t n = file.read(bytes.data() + length, bytes.size() - length);
    if (n == 0) break;
    length += n;
  }
  bytes.resize(length);
  return bytes;
}

namespace {
constexpr std::size_t temporarySuffixLength = 9;  // "." and eight hex digits
}  // namespace

// Fresh random digits on every call, so a clash with a leftover only costs another try.
std::string atomicWriteTemporaryName(const std::filesystem::path& target) {
  static thread_local std::mt19937_64 generator{std::random_device{}()};
  return fmt::format(".{}.{:08x}", target.filename().string(), static_cast<std::uint32_t>(generator()));
}

std::optional<std::string_view> atomicWriteTarget(std::string_view fileName) {
  if (fileName.size() < 2 + temporarySuffixLength || fileName.front() != '.') return std::nullopt;
  std::string_view suffix = fileName.substr(fileName.size() - temporarySuffixLength);
  if (suffix.front() != '.') return std::nullopt;
  for (char c : suffix.substr(1))
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return std::nullopt;
  return fileName.substr(1, fileName.size() - 1 - temporarySuffixLength);
}

void writeFileAtomically(const std::filesystem::path& path, std::string_view bytes) {
  std::filesystem::path folder = path.parent_path();
  if (folder.empty()) folder = ".";
  // A replaced file keeps its permissions; a new one gets what the user's umask (or the folder's
  // default ACL) leaves of 0666, which the kernel applies because the file is created with it.
  std::optional<mode_t> keptMode;
  struct stat existing {};
  if (::lstat(path.c_str(), &existing) == 0 && S_ISREG(existing.st_mode)) keptMode = existing.st_mode & 0777;

  std::filesystem::path temporary;
  int created = -1;
  for (int attempt = 0; created < 0; ++attempt) {
    temporary = folder / atomicWriteTemporaryName(path);
    created = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (created < 0 && (errno != EEXIST || attempt == 100)) throwErrno("write", path, errno);
  }
  FileDescriptor fd(created);
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
  if (keptMode && ::fchmod(fd.get(), *keptMode) != 0) fail(errno);
  if (::fsync(fd.get()) != 0) fail(errno);
  if (::close(fd.release()) != 0) fail(errno);
  if (::rename(temporary.c_str(), path.c_str()) != 0) fail(errno);
  FileDescriptor dir(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dir.get() >= 0) ::fsync(dir.get());
}

void createDirectories(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error) {
    std::string text = fmt::format("Could not create {}: {}", path.string(), error.message());
    if (error.category() == std::generic_category() || error.category() == std::system_category()) {
      if (isSystemFailure(error.value())) throw SystemFileError(text);
    }
    throw FileError(text);
  }
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
