#pragma once

#include <filesystem>

namespace vumo {

// A project folder ("<UUID>.vumo", or "<UUID>.vumo.tmp" while it is being recorded). Only derives
// paths; reading and writing the documents is the store's business.
struct ProjectPackage {
  std::filesystem::path rootURL;

  std::filesystem::path manifestURL() const { return rootURL / "manifest.json"; }
  std::filesystem::path mediaURL() const { return rootURL / "media" / "recording.mov"; }
  std::filesystem::path mouseEventsDirectory() const { return rootURL / "events"; }
  std::filesystem::path geometryDirectory() const { return rootURL / "geometry"; }
  std::filesystem::path cursorEventsDirectory() const { return rootURL / "cursor" / "events"; }
  std::filesystem::path cursorAssetsDirectory() const { return rootURL / "cursor" / "assets"; }
  std::filesystem::path editsDirectory() const { return rootURL / "edits"; }
  std::filesystem::path timelineURL() const { return editsDirectory() / "timeline.json"; }
  std::filesystem::path timelineLockURL() const { return editsDirectory() / ".timeline.lock"; }
  std::filesystem::path timelineHistoryDirectory() const { return editsDirectory() / "history"; }
  // Written once, before the first write of a newer schema (versions 3 to 8).
  std::filesystem::path preSchemaTimelineBackupURL(int schemaVersion) const;
  std::filesystem::path preSchema3TimelineBackupURL() const { return preSchemaTimelineBackupURL(3); }
  std::filesystem::path preSchema4TimelineBackupURL() const { return preSchemaTimelineBackupURL(4); }
  std::filesystem::path preSchema5TimelineBackupURL() const { return preSchemaTimelineBackupURL(5); }
  std::filesystem::path preSchema6TimelineBackupURL() const { return preSchemaTimelineBackupURL(6); }
  std::filesystem::path preSchema7TimelineBackupURL() const { return preSchemaTimelineBackupURL(7); }
  std::filesystem::path preSchema8TimelineBackupURL() const { return preSchemaTimelineBackupURL(8); }
  std::filesystem::path captionsURL() const { return editsDirectory() / "captions.json"; }
  std::filesystem::path captionsLockURL() const { return editsDirectory() / ".captions.lock"; }
  std::filesystem::path captionsHistoryDirectory() const { return editsDirectory() / "caption-history"; }
  std::filesystem::path canvasBackgroundsDirectory() const { return rootURL / "assets" / "backgrounds"; }
  std::filesystem::path diagnosticsDirectory() const { return rootURL / "diagnostics"; }
  std::filesystem::path reportURL() const { return diagnosticsDirectory() / "report.json"; }
  std::filesystem::path waveformCacheDirectory() const { return rootURL / "cache" / "waveform"; }

  friend bool operator==(const ProjectPackage&, const ProjectPackage&) = default;
};

}  // namespace vumo
