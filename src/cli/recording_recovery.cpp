#include "cli/recording_recovery.h"

#include "project/project_store.h"

namespace vumo {

InterruptedRecordingRecovery recoverInterruptedRecordings(ProjectStore& store, const MediaProbing& probe) {
  InterruptedRecordingRecovery result;
  std::vector<RecoverableProject> candidates;
  try {
    candidates = store.recoverableProjects(probe);
  } catch (const std::exception& error) {
    result.searchFailure = error.what();
    return result;
  }
  for (RecoverableProject& candidate : candidates) {
    InterruptedRecordingOutcome outcome{std::move(candidate), std::nullopt, {}};
    try {
      outcome.recovered = store.markRecovered(outcome.candidate.package, outcome.candidate.mediaDuration);
    } catch (const std::exception& error) {
      outcome.failure = error.what();
    }
    result.outcomes.push_back(std::move(outcome));
  }
  return result;
}

}  // namespace vumo
