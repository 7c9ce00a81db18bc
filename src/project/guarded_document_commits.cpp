#include "project/guarded_document_commits.h"

#include <chrono>
#include <system_error>

#include "project/file_lock.h"
#include "project/package_files.h"
#include "project/project_history_files.h"
#include "project/project_store_error.h"
#include "project/stale_temporaries.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/files.h"

namespace vumo {

namespace fs = std::filesystem;
using namespace package_files;

namespace {

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

bool isHistoryEntry(std::string_view name) { return !name.starts_with('.') && endsWith(name, ".json"); }

// Only lock holders write history entries, so any temporary of one is a dead writer's. The
// timeline and its migration backups are also written by recording and recovery without the
// lock, so theirs are left for the grace period.
void removeWhatKilledTimelineWritersLeft(const ProjectPackage& package) {
  removeStaleTemporaries(package.timelineHistoryDirectory(), isHistoryEntry);
  removeStaleTemporaries(
      package.editsDirectory(),
      [&](std::string_view name) {
        if (name == package.timelinePath().filename().native()) return true;
        for (int n = 3; n <= EditTimeline::currentSchemaVersion; ++n)
          if (name == package.preSchemaTimelineBackupPath(n).filename().native()) return true;
        return false;
      },
      unguardedWriteGrace);
}

// The captions document and its history are written only under the captions lock.
void removeWhatKilledCaptionsWritersLeft(const ProjectPackage& package) {
  removeStaleTemporaries(package.captionsHistoryDirectory(), isHistoryEntry);
  removeStaleTemporaries(package.editsDirectory(),
                         [&](std::string_view name) { return name == package.captionsPath().filename().native(); });
}

}  // namespace

// ---- Timeline ----------------------------------------------------------------------------------

std::string GuardedDocumentCommits::timelineDigest(const ProjectPackage& package) const {
  return readTimelineFile(package).digest;
}

TimelineState GuardedDocumentCommits::readTimelineState(const ProjectPackage& package, ProjectTime sourceDuration,
                                                        bool hasWebcam) const {
  // Digest and document come from the same bytes, so a commit in between cannot pair one file's
  // digest with another file's content.
  TimelineFile file = readTimelineFile(package);
  return {acceptedTimeline(file.bytes, sourceDuration, hasWebcam, stop_), std::move(file.digest)};
}

void GuardedDocumentCommits::writeTimeline(const EditTimeline& timeline, const ProjectPackage& package) {
  preserveTimelineMigrationBackups(timeline, package);
  writeFileAtomically(package.timelinePath(), encodeEditTimeline(timeline));
}

TimelineCommit GuardedDocumentCommits::commitTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                                      const std::optional<std::string>& expectedCaptionsDigest,
                                                      const ProjectPackage& package) {
  return replaceTimeline(timeline, expectedDigest, expectedCaptionsDigest, true, package);
}

std::string GuardedDocumentCommits::writeTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                                  const ProjectPackage& package) {
  return replaceTimeline(timeline, expectedDigest, std::nullopt, false, package).digest;
}

TimelineCommit GuardedDocumentCommits::replaceTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                                       const std::optional<std::string>& expectedCaptionsDigest,
                                                       bool preservesHistory, const ProjectPackage& package) {
  // Timeline lock first, captions lock second, in every writer: two writers cannot deadlock.
  // Destruction releases them in reverse order on every path.
  ExclusiveFileLock timelineLock(package.timelineLockPath(), stop_);
  std::optional<ExclusiveFileLock> captionsLock;
  if (expectedCaptionsDigest) captionsLock.emplace(package.captionsLockPath(), stop_);

  // Both checks come before any write, so a conflict changes nothing.
  TimelineFile current = readTimelineFile(package);
  if (current.digest != expectedDigest) throw ProjectStoreError::timelineDigestConflict(expectedDigest, current.digest);
  if (expectedCaptionsDigest) {
    std::string actualCaptions = readCaptionsFile(package).digest;
    if (actualCaptions != *expectedCaptionsDigest)
      throw ProjectStoreError::captionsDigestConflict(*expectedCaptionsDigest, actualCaptions);
  }

  removeWhatKilledTimelineWritersLeft(package);
  if (preservesHistory && current.bytes) {
    fs::path history = package.timelineHistoryDirectory();
    createDirectories(history);
    writeFileAtomically(
        history / ProjectHistoryFiles::timelineFileName(std::chrono::system_clock::now(), Uuid::random()),
        *current.bytes);
  }
  if (current.bytes) preserveBackups(timeline.schemaVersion, *current.bytes, package);
  const std::string bytes = encodeEditTimeline(timeline);
  writeFileAtomically(package.timelinePath(), bytes);

  TimelineCommit commit{sha256Hex(bytes), {}};
  if (preservesHistory) {
    try {
      ProjectHistoryFiles::trim(package.timelineHistoryDirectory());
    } catch (const std::exception& e) {
      commit.warnings.push_back(std::string("History cleanup failed: ") + e.what());
    }
  }
  return commit;
}

std::vector<TimelineHistoryEntry> GuardedDocumentCommits::timelineHistory(const ProjectPackage& package) const {
  auto files = ProjectHistoryFiles::list(package.timelineHistoryDirectory());
  std::vector<TimelineHistoryEntry> entries;
  entries.reserve(files.size());
  for (auto it = files.rbegin(); it != files.rend(); ++it)
    entries.push_back({*it, sha256HexOfFile(*it, documentLimits::timelineBytes)});
  return entries;
}

EditTimeline GuardedDocumentCommits::historyTimeline(std::int64_t index, const ProjectPackage& package,
                                                     ProjectTime sourceDuration, bool hasWebcam) const {
  auto files = ProjectHistoryFiles::list(package.timelineHistoryDirectory());
  if (index < 0 || static_cast<std::uint64_t>(index) >= files.size()) throw ProjectStoreError::historyNotFound(index);
  const fs::path& file = files[files.size() - 1 - static_cast<std::size_t>(index)];
  return acceptedTimeline(readFile(file, documentLimits::timelineBytes), sourceDuration, hasWebcam, stop_);
}

void GuardedDocumentCommits::preserveTimelineMigrationBackups(const EditTimeline& timeline,
                                                              const ProjectPackage& package) {
  if (auto bytes = readIfExists(package.timelinePath(), documentLimits::timelineBytes))
    preserveBackups(timeline.schemaVersion, *bytes, package);
}

// ---- Captions ----------------------------------------------------------------------------------

std::string GuardedDocumentCommits::captionsDigest(const ProjectPackage& package) const {
  return readCaptionsFile(package, stop_).digest;
}

CaptionsState GuardedDocumentCommits::captionsState(const ProjectPackage& package) const {
  CaptionsFile file = readCaptionsFile(package, stop_);
  return {std::move(file.document), std::move(file.digest)};
}

std::string GuardedDocumentCommits::commitCaptions(const CaptionDocument& document,
                                                   const std::string& expectedCaptionsDigest,
                                                   const std::string& expectedTimelineDigest,
                                                   const ProjectPackage& package) {
  ExclusiveFileLock timelineLock(package.timelineLockPath(), stop_);
  ExclusiveFileLock captionsLock(package.captionsLockPath(), stop_);

  std::string actualTimeline = readTimelineFile(package).digest;
  if (actualTimeline != expectedTimelineDigest)
    throw ProjectStoreError::timelineDigestConflict(expectedTimelineDigest, actualTimeline);
  CaptionsFile current = readCaptionsFile(package);
  if (current.digest != expectedCaptionsDigest)
    throw ProjectStoreError::captionsDigestConflict(expectedCaptionsDigest, current.digest);

  // Validated before anything is written, so a refused document leaves no history entry.
  CaptionDocument accepted = document.validated(readManifest(package).duration);

  removeWhatKilledCaptionsWritersLeft(package);
  fs::path history = package.captionsHistoryDirectory();
  createDirectories(history);
  if (current.bytes)
    writeFileAtomically(
        history / ProjectHistoryFiles::captionFileName(std::chrono::system_clock::now(), Uuid::random()),
        *current.bytes);
  const std::string bytes = encodeCaptionDocument(accepted);
  writeFileAtomically(package.captionsPath(), bytes);
  ProjectHistoryFiles::trim(history);
  return sha256Hex(bytes);
}

std::string GuardedDocumentCommits::writeCaptions(const CaptionDocument& document, const std::string& expectedDigest,
                                                  const ProjectPackage& package) {
  ExclusiveFileLock captionsLock(package.captionsLockPath(), stop_);
  std::string actual = readCaptionsFile(package).digest;
  if (actual != expectedDigest) throw ProjectStoreError::captionsDigestConflict(expectedDigest, actual);
  CaptionDocument accepted = document.validated(readManifest(package).duration);
  removeWhatKilledCaptionsWritersLeft(package);
  const std::string bytes = encodeCaptionDocument(accepted);
  writeFileAtomically(package.captionsPath(), bytes);
  return sha256Hex(bytes);
}

}  // namespace vumo
