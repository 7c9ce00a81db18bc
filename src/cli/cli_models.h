#pragma once

// The command line's request and answer records. Requests are what the grammar builds; answers are
// written to standard output as JSON with sorted keys.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "agent/agent_help_topic.h"
#include "shared/geometry.h"
#include "shared/json_fwd.h"
#include "shared/media_track_kind.h"
#include "shared/name_table.h"
#include "shared/project_time.h"
#include "shared/uuid.h"
#include "timeline/edit_timeline.h"
#include "transcription/caption_track_selection.h"

namespace vumo {

// A range as the command line speaks it: whole milliseconds, start and end.
struct CLIRange {
  std::int64_t startMilliseconds = 0;
  std::int64_t endMilliseconds = 0;

  // Source or sequence range in nanoseconds; callers have bounded the milliseconds already.
  ProjectTimeRange projectTimeRange() const;
  // Milliseconds of a range, each end converted with `cliMilliseconds`.
  static CLIRange from(const ProjectTimeRange& range);

  friend bool operator==(const CLIRange&, const CLIRange&) = default;
};
void to_json(Json& j, const CLIRange& r);
void from_json(const Json& j, CLIRange& r);

enum class CLITimeDomain { sequence, source };

struct CLIMutation {
  struct Cut {
    CLIRange range;
    CLITimeDomain domain = CLITimeDomain::sequence;
    friend bool operator==(const Cut&, const Cut&) = default;
  };
  struct Speed {
    CLIRange range;
    CLITimeDomain domain = CLITimeDomain::sequence;
    TimelinePlaybackRate rate;
    friend bool operator==(const Speed&, const Speed&) = default;
  };
  struct ZoomAdd {
    CLIRange range;
    CLITimeDomain domain = CLITimeDomain::sequence;
    double level = 1.8;
    std::optional<PointValue> focus;
    friend bool operator==(const ZoomAdd&, const ZoomAdd&) = default;
  };
  struct ZoomRemove {
    std::optional<std::int64_t> index;
    bool all = false;
    friend bool operator==(const ZoomRemove&, const ZoomRemove&) = default;
  };
  struct Settings {
    std::map<std::string, std::string> values;
    friend bool operator==(const Settings&, const Settings&) = default;
  };
  struct RestoreHistory {
    std::int64_t index = 0;
    friend bool operator==(const RestoreHistory&, const RestoreHistory&) = default;
  };
  struct ZoomRegenerate {
    friend bool operator==(const ZoomRegenerate&, const ZoomRegenerate&) = default;
  };

  std::variant<Cut, Speed, ZoomAdd, ZoomRemove, Settings, RestoreHistory, ZoomRegenerate> value;
  friend bool operator==(const CLIMutation&, const CLIMutation&) = default;
};

struct CLIMutationRequest {
  std::string projectID;
  CLIMutation mutation;
  bool appliesChanges = false;
  std::optional<std::string> expectedDigest;
  friend bool operator==(const CLIMutationRequest&, const CLIMutationRequest&) = default;
};

struct CLICaptionImportRequest {
  std::string projectID;
  Uuid jobID;
  bool alignsAudio = false;
  bool appliesChanges = false;
  std::optional<std::string> expectedTimelineDigest;
  std::optional<std::string> expectedCaptionsDigest;
  friend bool operator==(const CLICaptionImportRequest&, const CLICaptionImportRequest&) = default;
};

struct CLIEditPlanRequest {
  std::string projectID;
  Uuid jobID;
  bool appliesChanges = false;
  std::optional<std::string> expectedTimelineDigest;
  std::optional<std::string> expectedCaptionsDigest;
  std::optional<std::string> expectedPlanDigest;
  friend bool operator==(const CLIEditPlanRequest&, const CLIEditPlanRequest&) = default;
};

// One case per kind of request. `projectID` is always the id prefix as the user typed it.
struct CLICommand {
  struct Help {
    std::optional<CLIAgentHelpTopic> topic;
    friend bool operator==(const Help&, const Help&) = default;
  };
  struct Describe {
    std::string projectID;
    friend bool operator==(const Describe&, const Describe&) = default;
  };
  struct Idle {
    std::string projectID;
    std::int64_t minimumMilliseconds = 1500;
    double silenceDecibels = -42.0;
    std::optional<MediaTrackKind> track;
    std::int64_t keepTailMilliseconds = 500;
    std::int64_t minimumRemovalMilliseconds = 150;
    friend bool operator==(const Idle&, const Idle&) = default;
  };
  struct History {
    std::string projectID;
    friend bool operator==(const History&, const History&) = default;
  };
  struct CaptionsRead {
    std::string projectID;
    friend bool operator==(const CaptionsRead&, const CaptionsRead&) = default;
  };
  struct CaptionsPrepare {
    std::string projectID;
    MediaTrackKind track = MediaTrackKind::microphone;
    friend bool operator==(const CaptionsPrepare&, const CaptionsPrepare&) = default;
  };
  struct CaptionsGenerate {
    std::string projectID;
    CaptionTrackSelection track = CaptionTrackSelection::automatic;
    friend bool operator==(const CaptionsGenerate&, const CaptionsGenerate&) = default;
  };
  struct CaptionsImport {
    CLICaptionImportRequest request;
    friend bool operator==(const CaptionsImport&, const CaptionsImport&) = default;
  };
  struct EditPlanPrepare {
    std::string projectID;
    friend bool operator==(const EditPlanPrepare&, const EditPlanPrepare&) = default;
  };
  struct EditPlan {
    CLIEditPlanRequest request;
    friend bool operator==(const EditPlan&, const EditPlan&) = default;
  };
  struct Mutate {
    CLIMutationRequest request;
    friend bool operator==(const Mutate&, const Mutate&) = default;
  };
  struct Frame {
    std::string projectID;
    std::int64_t milliseconds = 0;
    std::filesystem::path outputPath;
    std::int64_t width = 1280;
    bool replace = false;
    friend bool operator==(const Frame&, const Frame&) = default;
  };
  struct SystemInfo {
    friend bool operator==(const SystemInfo&, const SystemInfo&) = default;
  };
  struct List {
    friend bool operator==(const List&, const List&) = default;
  };

  std::variant<Help, Describe, Idle, History, CaptionsRead, CaptionsPrepare, CaptionsGenerate, CaptionsImport,
               EditPlanPrepare, EditPlan, Mutate, Frame, SystemInfo, List>
      value;
  friend bool operator==(const CLICommand&, const CLICommand&) = default;
};

// Answers.

struct CLIValidationDetails {
  std::string operation = "zoom";
  CLIRange requestedRange;
  std::optional<std::string> zoomID;
  std::vector<CLIRange> normalizedCuts;
};
void to_json(Json& j, const CLIValidationDetails& d);

struct CLIErrorResponse {
  int protocolVersion = 1;
  std::string error;
  std::string message;
  std::optional<CLIValidationDetails> details;
};
void to_json(Json& j, const CLIErrorResponse& r);

struct CLIOutputResponse {
  int protocolVersion = 1;
  std::string projectID;
  std::string outputPath;
};
void to_json(Json& j, const CLIOutputResponse& r);

struct CLISystemInfoResponse {
  int protocolVersion = 1;
  std::string architecture;
  std::string chip;
  std::int64_t logicalCoreCount = 0;
  std::uint64_t memoryBytes = 0;
  std::string operatingSystemVersion;
  bool supportsMetal = false;
  std::int64_t availableDiskBytes = 0;
  std::string privacyNote;
};
void to_json(Json& j, const CLISystemInfoResponse& r);

}  // namespace vumo
