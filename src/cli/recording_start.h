#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/recording_platform.h"

namespace vumo {

class ProjectStore;

// What the streams asked for mean for the package: the tracks its movie has.
RecordingOptions recordingOptions(const RecordStreamRequest& request);

struct StartedRecording {
  std::unique_ptr<ScreenRecordingSession> session;
  // What the platform says this recording lacks, for the person and the diagnostic report.
  std::vector<std::string> notes;
};

// The one way a recording of a resolved source starts, for `vumo record` and the application
// alike: the platform's checks of the source, its streams, a new package and a running session.
// A session that does not start is discarded (nothing stays on disk) and its error goes through.
StartedRecording startRecording(RecordingPlatform& platform, ProjectStore& store, const CaptureSourceDescriptor& source,
                                const RecordStreamRequest& request, RecordingSessionSettings settings);

}  // namespace vumo
