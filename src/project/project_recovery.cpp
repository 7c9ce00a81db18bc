#include "project/project_recovery.h"

#include <algorithm>

#include "project/chunk_reader.h"
#include "project/cursor_asset_store.h"
#include "project/file_lock.h"
#include "project/folder_listing.h"
#include "project/package_files.h"
#include "project/stale_temporaries.h"
#include "shared/files.h"

namespace vumo {

namespace fs = std::filesystem;
using namespace package_files;

namespace {

bool isJsonFile(std::string_view name) { return !name.starts_with('.') && endsWith(name, ".json"); }

// Every document of the package that writeFileAtomically writes, folder by folder.
void removeWhatKilledWritersLeft(const ProjectPackage& package) {
  auto named = [](fs::path path) {
    return [name = path.filename().string()](std::string_view document) { return document == name; };
  };
  const auto grace = unguardedWriteGrace;
  removeStaleTemporaries(package.rootPath, named(package.manifestPath()), grace);
  removeStaleTemporaries(package.diagnosticsDirectory(), named(package.reportPath()), grace);
  removeStaleTemporaries(
      package.editsDirectory(),
      [&](std::string_view document) {
        if (document == package.timelinePath().filename().native() ||
            document == package.captionsPath().filename().native())
          return true;
        for (int n = 3; n <= EditTimeline::currentSchemaVersion; ++n)
          if (document == package.preSchemaTimelineBackupPath(n).filename().native()) return true;
        return false;
      },
      grace);
  removeStaleTemporaries(package.timelineHistoryDirectory(), isJsonFile, grace);
  removeStaleTemporaries(package.captionsHistoryDirectory(), isJsonFile, grace);
  // Chunks are staged as `active.tmp` before their rename.
  for (const fs::path& folder :
       {package.mouseEventsDirectory(), package.geometryDirectory(), package.cursorEventsDirectory()})
    removeStaleTemporaries(
        folder, [](std::string_view document) { return document == "active.tmp"; }, grace);
  removeStaleTemporaries(
      package.cursorAssetsDirectory(),
      [](std::string_view document) {
        return !document.starts_with('.') && (endsWith(document, ".json") || endsWith(document, ".png"));
      },
      grace);
}

}  // namespace

std::vector<RecoverableProject> ProjectRecovery::recoverableProjects(const MediaProbing& probe) const {
  std::vector<RecoverableProject> result;
  std::vector<fs::path> entries = visibleEntries(projectsDirectory_);
  std::sort(entries.begin(), entries.end());
  for (const fs::path& entry : entries) {
    if (!endsWith(entry.filename().string(), unfinishedSuffix) || !isDirectory(entry)) continue;
    // Still being recorded by a live process: not a crash.
    if (RecordingPackageLock::isHeld(entry)) continue;
    ProjectPackage package{entry};
    ProjectManifest manifest;
    try {
      manifest = readManifest(package);
    } catch (const SystemFileError&) {
      throw;  // the file may be fine; an answer without it would be wrong
    } catch (const Error&) {
      continue;
    }
    auto media = probe(package.mediaPath());
    if (!media || !media->isPlayableRecording()) continue;
    result.push_back({package, std::move(manifest), *media->duration});
  }
  return result;
}

ProjectPackage ProjectRecovery::markRecovered(const ProjectPackage& package, ProjectTime duration) {
  ProjectManifest manifest = readManifest(package);
  manifest.state = ProjectState::recovered;
  manifest.updatedAt = Timestamp::now();
  manifest.duration = duration;
  ChunkReader chunks;
  manifest.metrics.mouseEvents =
      static_cast<std::int64_t>(chunks.readMouseEvents(package.mouseEventsDirectory(), stop_).size());
  manifest.metrics.geometryRevisions =
      static_cast<std::int64_t>(chunks.readGeometrySamples(package.geometryDirectory(), stop_).size());
  manifest.cursorAssets = CursorAssetStore::readDescriptors(package.cursorAssetsDirectory());
  manifest.metrics.writerStatus = "recoveredFragment";
  removeWhatKilledWritersLeft(package);
  lifecycle_.updateManifest(manifest, package);
  lifecycle_.writeReport(DiagnosticReport::make(manifest, true, {"Recovered after the recording was interrupted."}),
                         package);
  return lifecycle_.renameToFinal(package);
}

}  // namespace vumo
