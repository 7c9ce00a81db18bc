#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "project/project_package.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

struct TimelineState {
  EditTimeline timeline;  // normalised and validated
  std::string digest;     // of the bytes the timeline was decoded from
};

struct CaptionsState {
  std::optional<CaptionDocument> document;  // decoded, not validated; none without a file
  std::string digest;                       // of the bytes the document was decoded from
};

struct TimelineHistoryEntry {
  std::filesystem::path path;
  std::string digest;
  friend bool operator==(const TimelineHistoryEntry&, const TimelineHistoryEntry&) = default;
};

// What a guarded timeline commit wrote.
struct TimelineCommit {
  std::string digest;                 // of the bytes now in edits/timeline.json
  std::vector<std::string> warnings;  // a failed history trim
};

// The two edit documents of a package, edits/timeline.json and edits/captions.json: reads that
// give a digest together with what the same bytes decode to, and writes guarded by the digest the
// writer started from, checked under `flock` on `edits/.timeline.lock` (then `edits/.captions.lock`,
// always in that order). A stale writer fails with a conflict and changes nothing; nothing is ever
// merged. Readers take no lock: every document is replaced atomically.
//
// A writer holding a document's lock also removes what writers killed mid-write left of that
// document (see stale_temporaries.h): at once where only lock holders write, after a grace period
// where recording and recovery write without the lock.
class GuardedDocumentCommits {
 public:
  // `stop` ends a wait for a lock and is checked before a document is decoded; never once a
  // commit has begun to write.
  explicit GuardedDocumentCommits(std::stop_token stop = {}) : stop_(std::move(stop)) {}

  // ---- Timeline ------------------------------------------------------------------------------

  // Digest of `edits/timeline.json` as it is on disk; of zero bytes when there is no file.
  std::string timelineDigest(const ProjectPackage& package) const;
  // Decoded, normalised and validated; the default timeline when there is no file. Never writes.
  TimelineState readTimelineState(const ProjectPackage& package, ProjectTime sourceDuration, bool hasWebcam) const;
  // Unguarded write for recording and recovery: migration backups, then the atomic write.
  void writeTimeline(const EditTimeline& timeline, const ProjectPackage& package);
  // Guarded replace with history: fails with timelineDigestConflict (or captionsDigestConflict
  // when a captions digest is named) and then changes nothing.
  TimelineCommit commitTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                const std::optional<std::string>& expectedCaptionsDigest,
                                const ProjectPackage& package);
  // Guarded replace without history (the editor's autosave). Returns the new digest.
  std::string writeTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                            const ProjectPackage& package);
  // Commits ordered by time, newest first (index 0), each with the digest of its bytes.
  std::vector<TimelineHistoryEntry> timelineHistory(const ProjectPackage& package) const;
  // The history entry at `index`, decoded, normalised and validated; historyNotFound otherwise.
  EditTimeline historyTimeline(std::int64_t index, const ProjectPackage& package, ProjectTime sourceDuration,
                               bool hasWebcam) const;
  // Before a timeline of a newer schema replaces an older file, keeps the older bytes once as
  // `timeline.pre-schemaN.json` for each schema N it crosses (3 to 8). Never overwrites one.
  void preserveTimelineMigrationBackups(const EditTimeline& timeline, const ProjectPackage& package);

  // ---- Captions ------------------------------------------------------------------------------

  // Of zero bytes when there is no captions file; an existing file must decode as a document.
  std::string captionsDigest(const ProjectPackage& package) const;
  CaptionsState captionsState(const ProjectPackage& package) const;
  // Guarded by both digests, with history. The document is validated against the manifest's
  // duration and written in its normal form. Returns the new captions digest.
  std::string commitCaptions(const CaptionDocument& document, const std::string& expectedCaptionsDigest,
                             const std::string& expectedTimelineDigest, const ProjectPackage& package);
  // Guarded by the captions digest only, without history.
  std::string writeCaptions(const CaptionDocument& document, const std::string& expectedDigest,
                            const ProjectPackage& package);

 private:
  TimelineCommit replaceTimeline(const EditTimeline& timeline, const std::string& expectedDigest,
                                 const std::optional<std::string>& expectedCaptionsDigest, bool preservesHistory,
                                 const ProjectPackage& package);

  std::stop_token stop_;
};

}  // namespace vumo
