#include "transcription/cloud_credential_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include "captions/caption_text.h"
#include "shared/files.h"
#include "shared/json.h"
#include "shared/uuid.h"
#include "timeline/grapheme_clusters.h"
#include "transcription/transcription_errors.h"

namespace fs = std::filesystem;

namespace vumo {

namespace {

constexpr fs::perms folderMode = fs::perms::owner_all;
constexpr fs::perms fileMode = fs::perms::owner_read | fs::perms::owner_write;

[[noreturn]] void fileFailure(std::string_view action, const fs::path& path, int error) {
  throw FileError(fmt::format("Could not {} {}: {}", action, path.string(), std::strerror(error)));
}

void setMode(const fs::path& path, fs::perms mode) {
  std::error_code error;
  fs::permissions(path, mode, fs::perm_options::replace, error);
  if (error) fileFailure("set the permissions of", path, error.value());
}

bool hasControlCharacter(std::string_view text) {
  for (unsigned char c : text)
    if (c < 0x20 || c == 0x7F) return true;
  return false;
}

// Writes the whole of `bytes` to a new file readable by the owner alone, flushed to disk.
void writePrivateFile(const fs::path& path, std::string_view bytes) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) fileFailure("create", path, errno);
  auto failWith = [&](std::string_view action, int error) {
    ::close(fd);
    fileFailure(action, path, error);
  };
  // The umask can only narrow 0600, but a later fchmod states the mode whatever it is.
  if (::fchmod(fd, 0600) != 0) failWith("set the permissions of", errno);
  std::size_t written = 0;
  while (written < bytes.size()) {
    ssize_t count = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (count < 0) {
      if (errno == EINTR) continue;
      failWith("write", errno);
    }
    written += static_cast<std::size_t>(count);
  }
  if (::fsync(fd) != 0) failWith("flush", errno);
  if (::close(fd) != 0) fileFailure("close", path, errno);
}

void flushFolder(const fs::path& folder) {
  int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

CloudCredentialStore::CloudCredentialStore(std::optional<fs::path> file)
    : file_(file ? std::move(*file) : vumoSupportDirectory() / defaultFileName) {}

bool CloudCredentialStore::environmentKeyOverrides() {
  const char* value = std::getenv(environmentVariable.data());
  return value != nullptr && value[0] != '\0';
}

std::string CloudCredentialStore::loadBailianAPIKey() const {
  if (environmentKeyOverrides()) return std::getenv(environmentVariable.data());

  std::error_code error;
  fs::file_status status = fs::symlink_status(file_, error);
  if (status.type() == fs::file_type::not_found) throw CloudCredentialError(CloudCredentialError::Case::missing);

  Json document = parseJson(readFile(file_, maximumFileBytes));
  json::requireObject(document, "credentials");
  const Json& bailian = json::requireKey(document, "bailian");
  json::requireObject(bailian, "bailian");
  std::string key = json::required<std::string>(bailian, "apiKey");
  std::string_view trimmed = trimmedWhitespaceAndNewlines(key);
  if (trimmed.empty()) throw CloudCredentialError(CloudCredentialError::Case::missing);
  return std::string(trimmed);
}

void CloudCredentialStore::saveBailianAPIKey(std::string_view key) const {
  std::string_view trimmed = trimmedWhitespaceAndNewlines(key);
  if (trimmed.empty() || !isWellFormedUtf8(trimmed) || hasControlCharacter(trimmed) ||
      GraphemeClusterCounter().exceeds(trimmed, maximumKeyCharacters))
    throw CloudCredentialError(CloudCredentialError::Case::invalid);

  fs::path folder = file_.parent_path();
  if (folder.empty()) folder = ".";
  createDirectories(folder);
  setMode(folder, folderMode);

  Json document = Json::object();
  document["bailian"] = Json::object();
  document["bailian"]["apiKey"] = std::string(trimmed);
  std::string bytes = encodeDocument(document);

  fs::path temporary = folder / (".CloudCredentials." + Uuid::random().string() + ".tmp");
  try {
    writePrivateFile(temporary, bytes);
    // rename() replaces an existing file and moves a new one into place alike.
    if (::rename(temporary.c_str(), file_.c_str()) != 0) fileFailure("replace", file_, errno);
  } catch (...) {
    std::error_code ignored;
    fs::remove(temporary, ignored);
    throw;
  }
  setMode(file_, fileMode);
  flushFolder(folder);
}

void CloudCredentialStore::deleteBailianAPIKey() const {
  std::error_code error;
  fs::remove(file_, error);
  if (error && error != std::errc::no_such_file_or_directory) fileFailure("remove", file_, error.value());
}

}  // namespace vumo
