#include "project/package_lifecycle.h"

#include <algorithm>
#include <system_error>

#include "project/package_files.h"
#include "project/project_store_error.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/initial_timeline.h"

namespace vumo {

namespace fs = std::filesystem;
using namespace package_files;

namespace {

bool isLowerHex(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
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

}  // namespace

CreatedProject PackageLifecycle::createProject(const CaptureSourceDescriptor& source, const RecordingOptions& options,
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
    manifest.webcam =
        WebcamMediaInfo{nextTrack++, webcam->deviceID, webcam->deviceName, webcam->pixelSize, webcam->framesPerSecond};
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
  documents_.writeTimeline(timeline, package);
  return {package, manifest};
}

void PackageLifecycle::updateManifest(const ProjectManifest& manifest, const ProjectPackage& package) {
  writeFileAtomically(package.manifestPath(), encodeProjectManifest(manifest));
}

ProjectPackage PackageLifecycle::finish(const ProjectPackage& package, ProjectManifest& manifest) {
  manifest.state = ProjectState::completed;
  manifest.updatedAt = Timestamp::now();
  updateManifest(manifest, package);
  return renameToFinal(package);
}

void PackageLifecycle::markFailed(const ProjectPackage& package, ProjectManifest& manifest, const std::string& reason) {
  manifest.state = ProjectState::failed;
  manifest.updatedAt = Timestamp::now();
  manifest.failureReason = reason;
  updateManifest(manifest, package);
}

ProjectManifest PackageLifecycle::readManifest(const ProjectPackage& package) const {
  return package_files::readManifest(package);
}

void PackageLifecycle::writeReport(const DiagnosticReport& report, const ProjectPackage& package) {
  createDirectories(package.diagnosticsDirectory());
  writeFileAtomically(package.reportPath(), encodeDiagnosticReport(report));
}

void PackageLifecycle::writeCanvasBackgroundAsset(const CanvasBackgroundAssetPayload& payload,
                                                  const ProjectPackage& package) {
  const CanvasBackgroundImage& image = payload.descriptor;
  const char* extension = image.mediaKind == CanvasBackgroundMediaKind::video ? ".mov" : ".jpg";
  if (!isLowerHex(image.id) || image.relativePath != "assets/backgrounds/" + image.id + extension)
    throw ProjectStoreError::invalidProjectLocation();
  createDirectories(package.canvasBackgroundsDirectory());
  fs::path target = package.rootPath / image.relativePath;
  if (auto existing = readIfExists(target, documentLimits::canvasBackgroundBytes);
      existing && sha256Hex(*existing) == image.id)
    return;
  writeFileAtomically(target, payload.imageData);
}

ProjectPackage PackageLifecycle::renameToFinal(const ProjectPackage& package) {
  fs::path root = standardized(package.rootPath);
  fs::path base = root.filename().stem().stem();
  fs::path final = root.parent_path() / (base.string() + std::string(finishedSuffix));
  if (final == root) return ProjectPackage{final};
  std::error_code error;
  if (fs::exists(fs::symlink_status(final, error))) removeAllOrThrow(final);
  renameOrThrow(root, final);
  return ProjectPackage{final};
}

}  // namespace vumo
