#pragma once

// Recordings that a killed recorder left unfinished, completed before anything else touches the
// projects folder: by `vumo record` before it records, and by the desktop application as it
// starts. Each caller words the outcome its own way.

#include <optional>
#include <string>
#include <vector>

#include "project/project_package.h"
#include "project/project_recovery.h"

namespace vumo {

class ProjectStore;

struct InterruptedRecordingOutcome {
  RecoverableProject candidate;
  std::optional<ProjectPackage> recovered;  // the finished package; none when it could not be
  std::string failure;                      // the error's text when it could not be
};

struct InterruptedRecordingRecovery {
  // The projects folder could not be searched; nothing was tried.
  std::optional<std::string> searchFailure;
  std::vector<InterruptedRecordingOutcome> outcomes;
};

// A package whose recorder still runs is held by its lock and left alone. One that cannot be
// completed stays as it is, and the others are still tried.
InterruptedRecordingRecovery recoverInterruptedRecordings(ProjectStore& store, const MediaProbing& probe);

}  // namespace vumo
