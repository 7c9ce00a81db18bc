#include "project/project_snapshot_loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>

#include "project/chunk_reader.h"
#include "project/cursor_asset_store.h"
#include "project/package_files.h"
#include "shared/cancellation.h"
#include "shared/document_limits.h"
#include "shared/files.h"

namespace vumo {

using namespace package_files;

ProjectSnapshot ProjectSnapshotLoader::load(const ProjectPackage& package) const {
  ProjectSnapshot snapshot;
  snapshot.packagePath = package.rootPath;
  snapshot.manifest = readManifest(package);
  const ProjectTime duration = snapshot.manifest.duration;
  const bool hasWebcam = snapshot.manifest.webcam.has_value();

  ChunkReader chunks;
  snapshot.mouseEvents = chunks.readMouseEvents(package.mouseEventsDirectory(), stop_);
  snapshot.geometry = chunks.readGeometrySamples(package.geometryDirectory(), stop_);
  snapshot.cursorShapeSamples = chunks.readCursorShapeSamples(package.cursorEventsDirectory(), stop_);

  for (CursorAssetDescriptor& descriptor : CursorAssetStore::readDescriptors(package.cursorAssetsDirectory())) {
    throwIfCancelled(stop_);
    std::string png =
        readFile(package.cursorAssetsDirectory() / (descriptor.id + ".png"), documentLimits::cursorAssetBytes);
    snapshot.cursorAssets.push_back({std::move(descriptor), std::move(png)});
  }

  TimelineFile timeline = readTimelineFile(package);
  snapshot.timeline = acceptedTimeline(timeline.bytes, duration, hasWebcam, stop_);
  snapshot.timelineDigest = std::move(timeline.digest);

  CaptionsFile captions = readCaptionsFile(package, stop_);
  if (captions.document) snapshot.captions = captions.document->validated(duration);
  snapshot.captionsDigest = std::move(captions.digest);

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
    snapshot.canvasBackgroundAssets.push_back(
        {*image, readFile(package.rootPath / image->relativePath, documentLimits::canvasBackgroundBytes)});
  }
  return snapshot;
}

}  // namespace vumo
