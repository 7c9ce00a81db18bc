#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "captions/caption_document.h"
#include "project/cursor_records.h"
#include "project/geometry_sample.h"
#include "project/project_manifest.h"
#include "shared/date.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {

struct CursorAssetPayload {
  CursorAssetDescriptor descriptor;
  std::string pngData;
  friend bool operator==(const CursorAssetPayload&, const CursorAssetPayload&) = default;
};

struct CanvasBackgroundAssetPayload {
  CanvasBackgroundImage descriptor;
  std::string imageData;
  friend bool operator==(const CanvasBackgroundAssetPayload&, const CanvasBackgroundAssetPayload&) = default;
};

// A project read whole at one moment: a plain value, safe to hand to another thread.
struct ProjectSnapshot {
  std::filesystem::path packagePath;
  ProjectManifest manifest;
  std::vector<MouseEvent> mouseEvents;
  std::vector<GeometrySample> geometry;
  EditTimeline timeline;  // normalised and validated
  // Of the very bytes `timeline` was decoded from (of zero bytes without a file): the digest a
  // commit based on this snapshot expects.
  std::string timelineDigest;
  std::optional<CaptionDocument> captions;  // validated; none without a captions file
  std::string captionsDigest;               // likewise, of the bytes `captions` was decoded from
  std::vector<CursorShapeSample> cursorShapeSamples;
  std::vector<CursorAssetPayload> cursorAssets;
  std::vector<CanvasBackgroundAssetPayload> canvasBackgroundAssets;
};

// One row of the project list.
struct RecentProject {
  std::filesystem::path packagePath;
  Timestamp createdAt;
  Timestamp updatedAt;
  ProjectState state = ProjectState::completed;
  CaptureSourceKind sourceKind = CaptureSourceKind::display;
  std::string sourceTitle;
  ProjectTime duration;
  bool hasWebcam = false;
  friend bool operator==(const RecentProject&, const RecentProject&) = default;
};

}  // namespace vumo
