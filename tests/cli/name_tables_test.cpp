#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>

#include "agent/agent_editing_capability.h"
#include "agent/edit_plan_exchange.h"
#include "agent/timeline_plan_engine.h"
#include "analysis/caption_timing_aligner.h"
#include "captions/caption_document.h"
#include "capture/screen_cast_portal.h"
#include "cli/cli_models.h"
#include "cli/recording_platform.h"
#include "export/export_configuration.h"
#include "export/export_progress.h"
#include "media/still_image.h"
#include "project/project_manifest.h"
#include "recording/recording_session.h"
#include "shared/json.h"
#include "shared/media_track_kind.h"
#include "timeline/device_frame_catalog.h"
#include "timeline/edit_timeline.h"
#include "timeline/mouse_event.h"

namespace vumo {
namespace {

using EveryNamedEnumeration =
    std::tuple<MediaTrackKind, CanvasAspectRatio, CanvasBackground, CanvasBackgroundPreset, CanvasBackgroundImageSource,
               CanvasBackgroundMediaKind, ClickEffectStyle, WebcamAspectRatio, DeviceFrameContentMode, AnnotationKind,
               TextAnnotationOutlineColor, DeviceFrameFamily, MouseButton, MousePhase, ProjectState, CaptureSourceKind,
               CaptionAppearance, EditPlanOperationType, ZoomReconciliationAction, CLIAgentHelpTopic,
               CaptionTrackSelection, CaptionTimingAlignmentAction, AgentEditingCapabilityID,
               AgentEditingCapabilityGroup, AgentEditingPreset, AgentEditingAspectRatio, AgentEditingClickStyle,
               AgentEditingWebcamShape, StillImageFormat, ExportResolution, ExportFrameRate, ExportQuality, ExportCodec,
               ExportPreset, ExportPhase, RecordingTransportState, RecordingWebcamState, RecordingBackend,
               ScreenCastSourceType, ScreenCastCursorMode>;

// A word listed twice would leave one of its cases unreadable, and a case's first word is the one
// every writer uses, so it must read back as that case, through JSON too.
template <NamedEnum E>
void expectEveryWordReadsAsItsCase() {
  SCOPED_TRACE(std::string(EnumNames<E>::typeName));
  std::set<std::string_view> seen;
  for (const auto& [value, word] : EnumNames<E>::table) {
    EXPECT_TRUE(seen.insert(word).second) << "listed twice: " << word;
    EXPECT_EQ(parseName<E>(word), value) << word;
    EXPECT_EQ(Json(value).template get<std::string>(), nameOf(value));
    EXPECT_EQ(json::as<E>(Json(std::string(nameOf(value))), "value"), value) << word;
  }
}

TEST(NameTables, EveryWordOfEveryStoredEnumerationReadsAsItsCase) {
  std::apply([](auto... none) { (expectEveryWordReadsAsItsCase<decltype(none)>(), ...); }, EveryNamedEnumeration{});
}

}  // namespace
}  // namespace vumo
