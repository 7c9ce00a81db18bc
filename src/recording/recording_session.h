#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "project/diagnostic_report.h"
#include "project/project_package.h"
#include "project/project_snapshot.h"
#include "shared/name_table.h"
#include "shared/project_time.h"

namespace vumo {

// `pausing` belongs to the family of sessions; a session that pauses at once goes from
// `recording` straight to `paused`. The last two are terminal.
enum class RecordingTransportState { recording, pausing, paused, resuming, stopping, discarding };

template <>
struct EnumNames<RecordingTransportState> {
  static constexpr std::string_view typeName = "recording transport state";
  static constexpr NameTable<RecordingTransportState, 6> table{{
      {RecordingTransportState::recording, "recording"},
      {RecordingTransportState::pausing, "pausing"},
      {RecordingTransportState::paused, "paused"},
      {RecordingTransportState::resuming, "resuming"},
      {RecordingTransportState::stopping, "stopping"},
      {RecordingTransportState::discarding, "discarding"},
  }};
};

constexpr bool isTerminal(RecordingTransportState state) {
  return state == RecordingTransportState::stopping || state == RecordingTransportState::discarding;
}

enum class RecordingWebcamState { disabled, active, interrupted };

template <>
struct EnumNames<RecordingWebcamState> {
  static constexpr std::string_view typeName = "recording webcam state";
  static constexpr NameTable<RecordingWebcamState, 3> table{{
      {RecordingWebcamState::disabled, "disabled"},
      {RecordingWebcamState::active, "active"},
      {RecordingWebcamState::interrupted, "interrupted"},
  }};
};

// What the control panel shows while a recording runs.
struct RecordingLiveStatus {
  ProjectTime elapsed;
  std::optional<double> microphoneLevel;  // 0...1; none while paused or without a microphone
  RecordingWebcamState webcamState = RecordingWebcamState::disabled;
  RecordingTransportState transportState = RecordingTransportState::recording;
  friend bool operator==(const RecordingLiveStatus&, const RecordingLiveStatus&) = default;
};

// At most one update every 100 ms of uptime. A clock that runs backwards holds updates back
// rather than letting them through.
class RecordingLiveStatusThrottle {
 public:
  static constexpr std::uint64_t minimumIntervalNanoseconds = 100'000'000;

  // True (and remembered) for the first call and whenever `nowNanoseconds` is at least the
  // interval after the last time that was let through.
  bool shouldPublish(std::uint64_t nowNanoseconds);

 private:
  std::optional<std::uint64_t> lastPublishUptimeNanoseconds_;
};

// What a finished recording hands back: the package under its final name, the project as the
// store loads it, and the diagnostic report that was written into it.
struct RecordingSessionResult {
  ProjectPackage package;
  ProjectSnapshot snapshot;
  DiagnosticReport report;
};

// One recording, from the first frame to a finished, discarded or failed package. The owner calls
// these from one thread; every call returns once its work is done.
class RecordingSession {
 public:
  virtual ~RecordingSession() = default;
  // Starts every stream; a failure leaves nothing running and is thrown.
  virtual void start() = 0;
  // No effect outside `recording`.
  virtual void pause() = 0;
  // No effect outside `paused`; the next frame finishes the resume.
  virtual void resume() = 0;
  // Finishes the movie and the package. Throws the latest fatal error of the recording, if any,
  // before anything is finished; the owner then calls `fail`.
  virtual RecordingSessionResult stop() = 0;
  // Stops everything and removes the package.
  virtual void discard() = 0;
  // Ends a recording that cannot be saved: the package is marked failed with `reason` and left
  // for recovery. Never throws.
  virtual void fail(const std::string& reason) noexcept = 0;
};

}  // namespace vumo
