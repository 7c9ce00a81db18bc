#pragma once

#include <filesystem>

namespace vumo {

// A project folder ("<UUID>.vumo", or "<UUID>.vumo.tmp" while it is being recorded). Only derives
// paths; reading and writing the documents is the store's business.
struct ProjectPackage {
  std::filesystem::path rootPath;

  std::filesystem::path manifestPath() const { return rootPath / "manifest.json"; }
  std::filesystem::path mediaPath() const { return rootPath / "media" / "recording.mov"; }
  std::filesystem::path mouseEventsDirectory() const { return rootPath / "events"; }
  std::filesystem::path geometryDirectory() const { return rootPath / "geometry"; }
  std::filesystem::path cursorEventsDirectory() const { return rootPath / "cursor" / "events"; }
  std::filesystem::path cursorAssetsDirectory() const { return rootPath / "cursor" / "assets"; }
  std::filesystem::path editsDirectory() const { return rootPath / "edits"; }
  std::filesystem::path timelinePath() const { return editsDirectory() / "timeline.json"; }
  std::filesystem::path timelineLockPath() const { return editsDirectory() / ".timeline.lock"; }
  std::filesystem::path timelineHistoryDirectory() const { return editsDirectory() / "history"; }
  // Written once, before the first write of a newer schema (versions 3 to 8).
  std::filesystem::path preSchemaTimelineBackupPath(int schemaVersion) const;
  std::filesystem::path preSchema3TimelineBackupPath() const { return preSchemaTimelineBackupPath(3); }
  std::filesystem::path preSchema4TimelineBackupPath() const { return preSchemaTimelineBackupPath(4); }
  std::filesystem::path preSchema5TimelineBackupPath() const { return preSchemaTimelineBackupPath(5); }
  std::filesystem::path preSchema6TimelineBackupPath() const { return preSchemaTimelineBackupPath(6); }
  std::filesystem::path preSchema7TimelineBackupPath() const { return preSchemaTimelineBackupPath(7); }
  std::filesystem::path preSchema8TimelineBackupPath() const { return preSchemaTimelineBackupPath(8); }
  std::filesystem::path captionsPath() const { return editsDirectory() / "captions.json"; }
  std::filesystem::path captionsLockPath() const { return editsDirectory() / ".captions.lock"; }
  std::filesystem::path captionsHistoryDirectory() const { return editsDirectory() / "caption-history"; }
  std::filesystem::path canvasBackgroundsDirectory() const { return rootPath / "assets" / "backgrounds"; }
  std::filesystem::path diagnosticsDirectory() const { return rootPath / "diagnostics"; }
  std::filesystem::path reportPath() const { return diagnosticsDirectory() / "report.json"; }
  std::filesystem::path waveformCacheDirectory() const { return rootPath / "cache" / "waveform"; }

  friend bool operator==(const ProjectPackage&, const ProjectPackage&) = default;
};

}  // namespace vumo
