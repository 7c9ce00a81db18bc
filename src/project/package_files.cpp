#include "project/package_files.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "shared/cancellation.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/error.h"
#include "shared/files.h"
#include "timeline/timeline_validator.h"

namespace vumo::package_files {

namespace fs = std::filesystem;

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

fs::path standardized(const fs::path& path) {
  fs::path result = fs::absolute(path).lexically_normal();
  if (result.filename().empty() && result.has_parent_path()) result = result.parent_path();
  return result;
}

fs::path resolvedFolder(const fs::path& folder) {
  std::error_code error;
  fs::path resolved = fs::weakly_canonical(folder, error);
  return error ? standardized(folder) : resolved;
}

bool isDirectory(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

void removeAllOrThrow(const fs::path& path) {
  std::error_code error;
  fs::remove_all(path, error);
  if (error) throw FileError(fmt::format("Could not remove {}: {}", path.string(), error.message()));
}

void renameOrThrow(const fs::path& from, const fs::path& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0)
    throw FileError(fmt::format("Could not move {} to {}: {}", from.string(), to.string(), std::strerror(errno)));
}

std::optional<std::string> readIfExists(const fs::path& path, std::size_t maximumBytes) {
  std::error_code error;
  auto status = fs::status(path, error);
  if (error && error != std::errc::no_such_file_or_directory)
    throw FileError(fmt::format("Could not read {}: {}", path.string(), error.message()));
  if (!fs::exists(status)) return std::nullopt;
  return readFile(path, maximumBytes);
}

std::string digestOf(const std::optional<std::string>& bytes) {
  return bytes ? sha256Hex(*bytes) : std::string(zeroByteDigest);
}

ProjectManifest readManifest(const ProjectPackage& package) {
  return decodeProjectManifest(readFile(package.manifestPath(), documentLimits::manifestBytes));
}

TimelineFile readTimelineFile(const ProjectPackage& package) {
  TimelineFile file;
  file.bytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes);
  file.digest = digestOf(file.bytes);
  return file;
}

CaptionsFile readCaptionsFile(const ProjectPackage& package, const std::stop_token& stop) {
  CaptionsFile file;
  file.bytes = readIfExists(package.captionsPath(), documentLimits::captionsBytes);
  file.digest = digestOf(file.bytes);
  if (file.bytes) {
    throwIfCancelled(stop);
    file.document = decodeCaptionDocument(*file.bytes);
  }
  return file;
}

EditTimeline acceptedTimeline(const std::optional<std::string>& bytes, ProjectTime sourceDuration, bool hasWebcam,
                              const std::stop_token& stop) {
  throwIfCancelled(stop);
  EditTimeline timeline =
      (bytes ? decodeEditTimeline(*bytes) : EditTimeline::empty()).normalized(sourceDuration, hasWebcam);
  TimelineValidator::validate(timeline, sourceDuration);
  return timeline;
}

}  // namespace vumo::package_files
