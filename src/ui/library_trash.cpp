#include "ui/library_trash.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <system_error>

#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

namespace fs = std::filesystem;

namespace {

// Unreserved characters and '/' stay; every other byte is %XX, as a URL path writes it.
std::string percentEncoded(const std::string& path) {
  std::string encoded;
  for (unsigned char c : path) {
    const bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                       c == '_' || c == '.' || c == '~' || c == '/';
    if (plain)
      encoded += static_cast<char>(c);
    else
      encoded += fmt::format("%{:02X}", c);
  }
  return encoded;
}

std::string candidateName(const fs::path& name, int attempt) {
  if (attempt == 1) return name.string();
  return fmt::format("{} {}{}", name.stem().string(), attempt, name.extension().string());
}

// Writes the whole text to a file that must not exist yet; false when it does.
bool createExclusively(const fs::path& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    if (errno == EEXIST) return false;
    throw FileError(fmt::format("Could not create {}: {}", path.string(), std::strerror(errno)));
  }
  std::size_t written = 0;
  bool failed = false;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      failed = true;
      break;
    }
    written += static_cast<std::size_t>(n);
  }
  const int error = errno;
  failed = ::fsync(fd) != 0 || failed;
  ::close(fd);
  if (failed) {
    ::unlink(path.c_str());
    throw FileError(fmt::format("Could not write {}: {}", path.string(), std::strerror(error)));
  }
  return true;
}

}  // namespace

fs::path FreedesktopTrash::homeTrash() { return applicationSupportDirectory() / "Trash"; }

std::string FreedesktopTrash::trashInfo(const fs::path& originalPath, std::chrono::system_clock::time_point deletedAt) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(deletedAt);
  std::tm local{};
  ::localtime_r(&seconds, &local);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &local);
  return fmt::format("[Trash Info]\nPath={}\nDeletionDate={}\n", percentEncoded(originalPath.string()), date);
}

fs::path FreedesktopTrash::moveToTrash(const fs::path& path, std::chrono::system_clock::time_point deletedAt) {
  const fs::path files = folder_ / "files";
  const fs::path info = folder_ / "info";
  createDirectories(files);
  createDirectories(info);
  const fs::path name = path.filename();
  const std::string text = trashInfo(path, deletedAt);
  for (int attempt = 1; attempt < 10'000; ++attempt) {
    const std::string candidate = candidateName(name, attempt);
    const fs::path target = files / candidate;
    const fs::path infoFile = info / (candidate + ".trashinfo");
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) continue;
    if (!createExclusively(infoFile, text)) continue;
    fs::rename(path, target, error);
    if (error == std::errc::cross_device_link) {
      error.clear();
      fs::copy(path, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
      if (!error) {
        fs::remove_all(path, error);
        if (error) {
          // Both copies would otherwise stay; the original is what the person still sees.
          std::error_code ignored;
          fs::remove_all(target, ignored);
        }
      } else {
        std::error_code ignored;
        fs::remove_all(target, ignored);
      }
    }
    if (error) {
      std::error_code ignored;
      fs::remove(infoFile, ignored);
      throw FileError(fmt::format("Could not move {} to the trash: {}", path.string(), error.message()));
    }
    return target;
  }
  throw FileError(fmt::format("Could not move {} to the trash: no free name", path.string()));
}

}  // namespace vumo
