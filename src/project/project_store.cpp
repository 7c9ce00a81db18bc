#include "project/project_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

#include "project/chunk_reader.h"
#include "project/cursor_asset_store.h"
#include "project/file_lock.h"
#include "project/folder_listing.h"
#include "project/media_probe.h"
#include "project/project_history_files.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/initial_timeline.h"
#include "timeline/timeline_validator.h"

namespace vumo {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view finishedSuffix = ".vumo";
constexpr std::string_view unfinishedSuffix = ".vumo.tmp";
constexpr std::string_view discardingSuffix = ".vumo.discarding";

bool endsWith(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// The file's bytes, or none when it does not exist. Any other failure is a FileError.
std::optional<std::string> readIfExists(const fs::path& path, std::size_t maximumBytes) {
  std::error_code error;
  auto status = fs::status(path, error);
  if (error && error != std::errc::no_such_file_or_directory)
    throw FileError(fmt::format("Could not read {}: {}", path.string(), error.message()));
  if (!fs::exists(status)) return std::nullopt;
  return readFile(path, maximumBytes);
}

std::string digestOf(const std::optional<std::string>& bytes) {
  return bytes ? sha256Hex(*bytes) : std::string(ProjectStore::zeroByteDigest);
}

// Absolute, without "." and ".." components and without a trailing separator. Symbolic links
// are left alone: a link is judged by where it stands, not by where it points.
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

void removeAllOrThrow(const fs::path& path) {
  std::error_code error;
  fs::remove_all(path, error);
  if (error) throw FileError(fmt::format("Could not remove {}: {}", path.string(), error.message()));
}

void renameOrThrow(const fs::path& from, const fs::path& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0)
    throw FileError(fmt::format("Could not move {} to {}: {}", from.string(), to.string(), std::strerror(errno)));
}

bool isDirectory(const fs::path& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

bool isLowerHex(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

std::string uppercased(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::optional<DeviceFrameEdit> defaultDeviceFrame(const CaptureSourceDescriptor& source) {
  try {
    SizeValue size{static_cast<double>(source.initialPixelSize.width),
                   static_cast<double>(source.initialPixelSize.height)};
    auto devices = DeviceFrameCatalog::bundled().compatibleDevices(size);
    if (devices.empty()) return std::nullopt;
    return DeviceFrameEdit{true, devices.front().defaultVariant().id, DeviceFrameContentMode::fit};
  } catch (const Error&) {
    // A broken catalogue costs the device its frame, never the recording.
    return std::nullopt;
  }
}

// The bytes and digest of the captions file, checked to be a caption document.
struct CaptionsFile {
  std::optional<std::string> bytes;
  std::optional<CaptionDocument> document;
  std::string digest;
};

CaptionsFile readCaptionsFile(const ProjectPackage& package) {
  CaptionsFile file;
  file.bytes = readIfExists(package.captionsPath(), documentLimits::captionsBytes);
  if (file.bytes) file.document = decodeCaptionDocument(*file.bytes);
  file.digest = digestOf(file.bytes);
  return file;
}

void preserveBackups(std::int64_t newSchema, const std::string& oldBytes, const ProjectPackage& package) {
  std::int64_t oldSchema = decodeEditTimeline(oldBytes).schemaVersion;
  for (int n = 3; n <= EditTimeline::currentSchemaVersion; ++n) {
    if (newSchema < n || oldSchema >= n) continue;
    fs::path backup = package.preSchemaTimelineBackupPath(n);
    std::error_code error;
    if (fs::exists(fs::symlink_status(backup, error))) continue;
    writeFileAtomically(backup, oldBytes);
  }
}

EditTimeline acceptedTimeline(const EditTimeline& decoded, ProjectTime sourceDuration, bool hasWebcam) {
  EditTimeline timeline = decoded.normalized(sourceDuration, hasWebcam);
  TimelineValidator::validate(timeline, sourceDuration);
  return timeline;
}

}  // namespace

// ---- Construction ------------------------------------------------------------------------------

fs::path ProjectStore::defaultProjectsDirectory() { return vumoSupportDirectory() / "Projects"; }

ProjectStore::ProjectStore(std::optional<fs::path> rootDirectory, std::stop_token stop)
    : projectsDirectory_(standardized(rootDirectory ? *rootDirectory : defaultProjectsDirectory())),
      stop_(std::move(stop)) {
  createDirectories(projectsDirectory_);
}

// ---- Package lifecycle ----------------------------------------------------------------------

CreatedProject ProjectStore::createProject(const CaptureSourceDescriptor& source, const RecordingOptions& options,
                                           PixelSize encodedPixelSize,
                                           const std::optional<RecordingMicrophoneConfiguration>& microphone,
                                           const std::optional<RecordingWebcamConfiguration>& webcam) {
  Uuid id = Uuid::random();
  ProjectPackage package{projectsDirectory_ / (id.string() + std::string(unfinishedSuffix))};
  for (const fs::path& folder :
       {package.rootPath, package.rootPath / "media", package.mouseEventsDirectory(), package.geometryDirectory(),
        package.cursorAssetsDirectory(), package.cursorEventsDirectory(), package.editsDirectory(),
        package.diagnosticsDirectory(), package.waveformCacheDirectory()})
    createDirectories(folder);

  ProjectManifest manifest;
  manifest.version = ProjectManifest::currentVersion;
  manifest.id = id;
  manifest.createdAt = Timestamp::now();
  manifest.updatedAt = manifest.createdAt;
  manifest.state = ProjectState::recording;
  manifest.source = source;
  manifest.options = options;
  manifest.encodedPixelSize = encodedPixelSize;
  manifest.duration = ProjectTime::zero();

  std::int64_t nextTrack = 0;
  manifest.media.tracks.push_back({MediaTrackKind::screen, nextTrack++});
  if (webcam) {
    manifest.webcam = WebcamMediaInfo{nextTrack++, webcam->deviceID, webcam->deviceName, webcam->pixelSize,
                                      webcam->framesPerSecond};
  }
  if (options.capturesSystemAudio) manifest.media.tracks.push_back({MediaTrackKind::systemAudio, nextTrack++});
  if (options.capturesMicrophone) manifest.media.tracks.push_back({MediaTrackKind::microphone, nextTrack++});
  if (microphone) manifest.microphone = MicrophoneMediaInfo{microphone->deviceID, microphone->deviceName};
  updateManifest(manifest, package);

  std::optional<WebcamOverlay> overlay;
  if (webcam) overlay = WebcamOverlay::newRecording();
  EditTimeline timeline = makeInitialTimeline(ProjectTime::zero(), overlay, {});
  // The length is not known until the recording stops; a timeline without clips reads as one
  // clip over the whole source, which is also right for a package recovered after a crash.
  timeline.segments.clear();
  if (source.kind == CaptureSourceKind::device) timeline.deviceFrame = defaultDeviceFrame(source);
  writeTimeline(timeline, package);
  return {package, manifest};
}

void ProjectStore::updateManifest(const ProjectManifest& manifest, const ProjectPackage& package) {
  writeFileAtomically(package.manifestPath(), encodeProjectManifest(manifest));
}

ProjectPackage ProjectStore::finish(const ProjectPackage& package, ProjectManifest& manifest) {
  manifest.state = ProjectState::completed;
  manifest.updatedAt = Timestamp::now();
  updateManifest(manifest, package);
  return renameToFinal(package);
}

void ProjectStore::markFailed(const ProjectPackage& package, ProjectManifest& manifest, const std::string& reason) {
  manifest.state = ProjectState::failed;
  manifest.updatedAt = Timestamp::now();
  manifest.failureReason = reason;
  updateManifest(manifest, package);
}

ProjectManifest ProjectStore::readManifest(const ProjectPackage& package) const {
  return decodeProjectManifest(readFile(package.manifestPath(), documentLimits::manifestBytes));
}

void ProjectStore::writeReport(const DiagnosticReport& report, const ProjectPackage& package) {
  createDirectories(package.diagnosticsDirectory());
  writeFileAtomically(package.reportPath(), encodeDiagnosticReport(report));
}

void ProjectStore::writeCanvasBackgroundAsset(const CanvasBackgroundAssetPayload& payload,
                                              const ProjectPackage& package) {
  const CanvasBackgroundImage& image = payload.descriptor;
  const char* extension = image.mediaKind == CanvasBackgroundMediaKind::video ? ".mov" : ".jpg";
  if (!isLowerHex(image.id) || image.relativePath != "assets/backgrounds/" + image.id + extension)
    throw ProjectStoreError::invalidProjectLocation();
  createDirectories(package.canvasBackgroundsDirectory());
  fs::path target = package.rootPath / image.relativePath;
  if (auto existing = readIfExists(target, documentLimits::canvasBackgroundBytes); existing && sha256Hex(*existing) == image.id) return;
  writeFileAtomically(target, payload.imageData);
}

ProjectPackage ProjectStore::renameToFinal(const ProjectPackage& package) {
  fs::path root = standardized(package.rootPath);
  fs::path base = root.filename().stem().stem();
  fs::path final = root.parent_path() / (base.string() + std::string(finishedSuffix));
  if (final == root) return ProjectPackage{final};
  std::error_code error;
  if (fs::exists(fs::symlink_status(final, error))) removeAllOrThrow(final);
  renameOrThrow(root, final);
  return ProjectPackage{final};
}

// ---- Timeline ----------------------------------------------------------------------------------

std::string ProjectStore::timelineDigest(const ProjectPackage& package) const {
  return digestOf(readIfExists(package.timelinePath(), documentLimits::timelineBytes));
}

EditTimeline ProjectStore::readTimeline(const ProjectPackage& package, ProjectTime sourceDuration,
                                        bool hasWebcam) const {
  return readTimelineState(package, sourceDuration, hasWebcam).timeline;
}

TimelineState ProjectStore::readTimelineState(const ProjectPackage& package, ProjectTime sourceDuration,
                                              bool hasWebcam) const {
  // Digest and document come from the same bytes, so a commit in between cannot pair one file's
  // digest with another file's content.
  auto bytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes);
  EditTimeline decoded = bytes ? decodeEditTimeline(*bytes) : EditTimeline::empty();
  return {acceptedTimeline(decoded, sourceDuration, hasWebcam), digestOf(bytes)};
}

void ProjectStore::writeTimeline(const EditTimeline& timeline, const ProjectPackage& package) {
  preserveTimelineMigrationBackups(timeline, package);
  writeFileAtomically(package.timelinePath(), encodeEditTimeline(timeline));
}

std::vector<std::string> ProjectStore::commitTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                                      const std::optional<std::string>& expectedCaptionsDigest,
                                                      const ProjectPackage& package) {
  return replaceTimeline(timeline, expectedDigest, expectedCaptionsDigest, true, package).second;
}

std::string ProjectStore::writeTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                        const ProjectPackage& package) {
  return replaceTimeline(timeline, expectedDigest, std::nullopt, false, package).first;
}

std::pair<std::string, std::vector<std::string>> ProjectStore::replaceTimeline(
    const EditTimeline& timeline, const std::string& expectedDigest,
    const std::optional<std::string>& expectedCaptionsDigest, bool preservesHistory, const ProjectPackage& package) {
  // Timeline lock first, captions lock second, in every writer: two writers cannot deadlock.
  // Destruction releases them in reverse order on every path.
  ExclusiveFileLock timelineLock(package.timelineLockPath(), stop_);
  std::optional<ExclusiveFileLock> captionsLock;
  if (expectedCaptionsDigest) captionsLock.emplace(package.captionsLockPath(), stop_);

  // Both checks come before any write, so a conflict changes nothing.
  auto oldBytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes);
  std::string actual = digestOf(oldBytes);
  if (actual != expectedDigest) throw ProjectStoreError::timelineDigestConflict(expectedDigest, actual);
  if (expectedCaptionsDigest) {
    std::string actualCaptions = readCaptionsFile(package).digest;
    if (actualCaptions != *expectedCaptionsDigest)
      throw ProjectStoreError::captionsDigestConflict(*expectedCaptionsDigest, actualCaptions);
  }

  if (preservesHistory && oldBytes) {
    fs::path history = package.timelineHistoryDirectory();
    createDirectories(history);
    writeFileAtomically(history / ProjectHistoryFiles::timelineFileName(std::chrono::system_clock::now(), Uuid::random()),
                        *oldBytes);
  }
  if (oldBytes) preserveBackups(timeline.schemaVersion, *oldBytes, package);
  writeFileAtomically(package.timelinePath(), encodeEditTimeline(timeline));
  std::string digest = sha256HexOfFile(package.timelinePath(), documentLimits::timelineBytes);

  std::vector<std::string> warnings;
  if (preservesHistory) {
    try {
      ProjectHistoryFiles::trim(package.timelineHistoryDirectory());
    } catch (const std::exception& e) {
      warnings.push_back(std::string("History cleanup failed: ") + e.what());
    }
  }
  return {digest, warnings};
}

std::vector<TimelineHistoryEntry> ProjectStore::timelineHistory(const ProjectPackage& package) const {
  auto files = ProjectHistoryFiles::list(package.timelineHistoryDirectory());
  std::vector<TimelineHistoryEntry> entries;
  entries.reserve(files.size());
  for (auto it = files.rbegin(); it != files.rend(); ++it) entries.push_back({*it, sha256HexOfFile(*it, documentLimits::timelineBytes)});
  return entries;
}

EditTimeline ProjectStore::historyTimeline(std::int64_t index, const ProjectPackage& package,
                                           ProjectTime sourceDuration, bool hasWebcam) const {
  auto files = ProjectHistoryFiles::list(package.timelineHistoryDirectory());
  if (index < 0 || static_cast<std::uint64_t>(index) >= files.size()) throw ProjectStoreError::historyNotFound(index);
  const fs::path& file = files[files.size() - 1 - static_cast<std::size_t>(index)];
  return acceptedTimeline(decodeEditTimeline(readFile(file, documentLimits::timelineBytes)), sourceDuration, hasWebcam);
}

void ProjectStore::preserveTimelineMigrationBackups(const EditTimeline& timeline, const ProjectPackage& package) {
  if (auto bytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes)) preserveBackups(timeline.schemaVersion, *bytes, package);
}

// ---- Captions ----------------------------------------------------------------------------------

std::string ProjectStore::captionsDigest(const ProjectPackage& package) const {
  return readCaptionsFile(package).digest;
}

CaptionsState ProjectStore::captionsState(const ProjectPackage& package) const {
  CaptionsFile file = readCaptionsFile(package);
  return {std::move(file.document), std::move(file.digest)};
}

std::string ProjectStore::commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                                         const std::string& expectedTimelineDigest, const ProjectPackage& package) {
  ExclusiveFileLock timelineLock(package.timelineLockPath(), stop_);
  ExclusiveFileLock captionsLock(package.captionsLockPath(), stop_);

  std::string actualTimeline = timelineDigest(package);
  if (actualTimeline != expectedTimelineDigest)
    throw ProjectStoreError::timelineDigestConflict(expectedTimelineDigest, actualTimeline);
  CaptionsFile current = readCaptionsFile(package);
  if (current.digest != expectedCaptionsDigest)
    throw ProjectStoreError::captionsDigestConflict(expectedCaptionsDigest, current.digest);

  // Validated before anything is written, so a refused document leaves no history entry.
  CaptionDocument accepted = document.validated(readManifest(package).duration);

  fs::path history = package.captionsHistoryDirectory();
  createDirectories(history);
  if (current.bytes)
    writeFileAtomically(history / ProjectHistoryFiles::captionFileName(std::chrono::system_clock::now(), Uuid::random()),
                        *current.bytes);
  writeFileAtomically(package.captionsPath(), encodeCaptionDocument(accepted));
  ProjectHistoryFiles::trim(history);
  return sha256HexOfFile(package.captionsPath(), documentLimits::captionsBytes);
}

std::string ProjectStore::writeCaptions(const CaptionDocument& document, const std::string& expectedDigest,
                                        const ProjectPackage& package) {
  ExclusiveFileLock captionsLock(package.captionsLockPath(), stop_);
  std::string actual = readCaptionsFile(package).digest;
  if (actual != expectedDigest) throw ProjectStoreError::captionsDigestConflict(expectedDigest, actual);
  CaptionDocument accepted = document.validated(readManifest(package).duration);
  writeFileAtomically(package.captionsPath(), encodeCaptionDocument(accepted));
  return sha256HexOfFile(package.captionsPath(), documentLimits::captionsBytes);
}

// ---- Finding, loading, removing ------------------------------------------------------------------

std::vector<RecentProject> ProjectStore::recentProjects() const {
  std::vector<RecentProject> projects;
  for (const fs::path& entry : visibleEntries(projectsDirectory_)) {
    if (entry.extension() != finishedSuffix || !isDirectory(entry)) continue;
    ProjectPackage package{entry};
    std::error_code error;
    if (!fs::exists(package.mediaPath(), error)) continue;
    ProjectManifest manifest;
    try {
      manifest = readManifest(package);
    } catch (const SystemFileError&) {
      throw;  // the manifest may be fine; the listing would be wrong without it
    } catch (const Error&) {
      continue;  // not a project we can show; left alone
    }
    if (manifest.state != ProjectState::completed && manifest.state != ProjectState::recovered) continue;
    projects.push_back({entry, manifest.createdAt, manifest.updatedAt, manifest.state, manifest.source.kind,
                        manifest.source.title, manifest.duration, manifest.webcam.has_value()});
  }
  std::sort(projects.begin(), projects.end(), [](const RecentProject& a, const RecentProject& b) {
    if (a.updatedAt != b.updatedAt) return a.updatedAt > b.updatedAt;
    return a.packagePath.filename().native() < b.packagePath.filename().native();
  });
  return projects;
}

ProjectPackage ProjectStore::project(const std::string& matchingIDPrefix) const {
  std::string prefix = uppercased(matchingIDPrefix);
  std::vector<ProjectPackage> matches;
  for (const RecentProject& recent : recentProjects()) {
    ProjectPackage package{recent.packagePath};
    std::string id;
    try {
      id = readManifest(package).id.string();
    } catch (const SystemFileError&) {
      throw;  // the manifest may be fine; the listing would be wrong without it
    } catch (const Error&) {
      continue;
    }
    if (id.compare(0, prefix.size(), prefix) == 0) matches.push_back(package);
  }
  if (matches.empty()) throw ProjectStoreError::projectNotFound(matchingIDPrefix);
  if (matches.size() > 1) throw ProjectStoreError::ambiguousProjectPrefix(matchingIDPrefix);
  return matches.front();
}

ProjectSnapshot ProjectStore::loadSnapshot(const ProjectPackage& package) const {
  ProjectSnapshot snapshot;
  snapshot.packagePath = package.rootPath;
  snapshot.manifest = readManifest(package);
  const ProjectTime duration = snapshot.manifest.duration;
  const bool hasWebcam = snapshot.manifest.webcam.has_value();

  ChunkReader chunks;
  snapshot.mouseEvents = chunks.readMouseEvents(package.mouseEventsDirectory());
  snapshot.geometry = chunks.readGeometrySamples(package.geometryDirectory());
  snapshot.cursorShapeSamples = chunks.readCursorShapeSamples(package.cursorEventsDirectory());

  for (CursorAssetDescriptor& descriptor : CursorAssetStore::readDescriptors(package.cursorAssetsDirectory())) {
    std::string png = readFile(package.cursorAssetsDirectory() / (descriptor.id + ".png"), documentLimits::cursorAssetBytes);
    snapshot.cursorAssets.push_back({std::move(descriptor), std::move(png)});
  }

  auto timelineBytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes);
  snapshot.timeline = acceptedTimeline(timelineBytes ? decodeEditTimeline(*timelineBytes) : EditTimeline::empty(),
                                       duration, hasWebcam);

  if (auto captionBytes = readIfExists(package.captionsPath(), documentLimits::captionsBytes))
    snapshot.captions = decodeCaptionDocument(*captionBytes).validated(duration);

  if (const auto& image = snapshot.timeline.canvas.image) {
    // The path comes from a document that agents may write: only the package's own backgrounds
    // folder is read.
    constexpr std::string_view folder = "assets/backgrounds/";
    std::string_view relative = image->relativePath;
    std::string_view name = relative.substr(std::min(relative.size(), folder.size()));
    bool inside = relative.starts_with(folder) && !name.empty() && name.find('/') == std::string_view::npos &&
                  name != "." && name != "..";
    if (!inside)
      throw FileError(fmt::format("The canvas background {} is outside the project package", image->relativePath));
    snapshot.canvasBackgroundAssets.push_back({*image, readFile(package.rootPath / image->relativePath, documentLimits::canvasBackgroundBytes)});
  }
  return snapshot;
}

bool ProjectStore::isDirectlyInProjectsFolder(const fs::path& path) const {
  std::string name = path.filename().string();
  if (name.empty() || name == "." || name == "..") return false;
  return resolvedFolder(path.parent_path()) == resolvedFolder(projectsDirectory_);
}

void ProjectStore::deleteProject(const RecentProject& recent) {
  fs::path path = standardized(recent.packagePath);
  if (path.extension() != finishedSuffix || !isDirectlyInProjectsFolder(path))
    throw ProjectStoreError::invalidProjectLocation();
  removeAllOrThrow(path);
}

void ProjectStore::discardRecording(const ProjectPackage& package) {
  fs::path path = standardized(package.rootPath);
  std::string name = path.filename().string();
  std::error_code error;
  bool isLink = fs::is_symlink(fs::symlink_status(path, error));
  if (!endsWith(name, unfinishedSuffix) || isLink || !isDirectlyInProjectsFolder(path))
    throw ProjectStoreError::invalidProjectLocation();
  std::string base = name.substr(0, name.size() - unfinishedSuffix.size());
  if (!Uuid::parse(base)) throw ProjectStoreError::invalidProjectLocation();

  // Out of every listing's sight first; the removal may then fail or be cut short by a crash,
  // and cleanupDiscardedRecordings finishes it.
  fs::path discarding = path.parent_path() / (base + std::string(discardingSuffix));
  if (fs::exists(fs::symlink_status(discarding, error))) removeAllOrThrow(discarding);
  renameOrThrow(path, discarding);
  fs::remove_all(discarding, error);
}

std::size_t ProjectStore::cleanupDiscardedRecordings() {
  std::size_t removed = 0;
  for (const fs::path& entry : visibleEntries(projectsDirectory_)) {
    std::string name = entry.filename().string();
    if (!endsWith(name, discardingSuffix)) continue;
    if (!Uuid::parse(name.substr(0, name.size() - discardingSuffix.size()))) continue;
    std::error_code error;
    fs::remove_all(entry, error);
    if (!error) ++removed;
  }
  return removed;
}

std::size_t ProjectStore::importProjects(const fs::path& folder) {
  std::size_t copied = 0;
  std::vector<fs::path> entries = visibleEntries(folder);
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    std::string name = entry.filename().string();
    if (!(endsWith(name, finishedSuffix) || endsWith(name, unfinishedSuffix)) || !isDirectory(entry)) continue;
    fs::path target = projectsDirectory_ / name;
    std::error_code error;
    if (fs::exists(fs::symlink_status(target, error))) continue;
    // Copied under a name no listing shows as a finished project, then moved into place in one
    // step, so an interrupted copy never looks like a project.
    fs::path staging = projectsDirectory_ / (name + ".tmp");
    removeAllOrThrow(staging);
    fs::copy(entry, staging, fs::copy_options::recursive, error);
    if (error) {
      fs::remove_all(staging, error);
      throw FileError(fmt::format("Could not copy {}: {}", entry.string(), error.message()));
    }
    renameOrThrow(staging, target);
    ++copied;
  }
  return copied;
}

// ---- Recovery ----------------------------------------------------------------------------------

std::vector<RecoverableProject> ProjectStore::recoverableProjects() const {
  std::vector<RecoverableProject> result;
  std::vector<fs::path> entries = visibleEntries(projectsDirectory_);
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    if (!endsWith(entry.filename().string(), unfinishedSuffix) || !isDirectory(entry)) continue;
    ProjectPackage package{entry};
    ProjectManifest manifest;
    try {
      manifest = readManifest(package);
    } catch (const SystemFileError&) {
      throw;  // the manifest may be fine; the listing would be wrong without it
    } catch (const Error&) {
      continue;
    }
    auto media = MediaProbe::inspect(package.mediaPath());
    if (!media || !media->isPlayableRecording()) continue;
    result.push_back({package, std::move(manifest), *media->duration});
  }
  return result;
}

ProjectPackage ProjectStore::markRecovered(const ProjectPackage& package, ProjectTime duration) {
  ProjectManifest manifest = readManifest(package);
  manifest.state = ProjectState::recovered;
  manifest.updatedAt = Timestamp::now();
  manifest.duration = duration;
  ChunkReader chunks;
  manifest.metrics.mouseEvents = static_cast<std::int64_t>(chunks.readMouseEvents(package.mouseEventsDirectory()).size());
  manifest.metrics.geometryRevisions =
      static_cast<std::int64_t>(chunks.readGeometrySamples(package.geometryDirectory()).size());
  manifest.cursorAssets = CursorAssetStore::readDescriptors(package.cursorAssetsDirectory());
  manifest.metrics.writerStatus = "recoveredFragment";
  updateManifest(manifest, package);
  writeReport(DiagnosticReport::make(manifest, true, {"Recovered after the recording was interrupted."}), package);
  return renameToFinal(package);
}

}  // namespace vumo
