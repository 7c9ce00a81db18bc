#include "ui/application_model.h"

#include <algorithm>
#include <utility>

#include "ui/user_messages.h"

namespace vumo {

ApplicationModel::ApplicationModel(Observer observer) { observers_.push_back(std::move(observer)); }

void ApplicationModel::addObserver(Observer observer) { observers_.push_back(std::move(observer)); }

bool ApplicationModel::moveTo(ApplicationPhase to, std::initializer_list<ApplicationPhase> from) {
  if (std::find(from.begin(), from.end(), phase_) == from.end()) return false;
  enter(to);
  return true;
}

void ApplicationModel::enter(ApplicationPhase to) {
  phase_ = to;
  if (to != ApplicationPhase::editing && to != ApplicationPhase::exporting) openProjectID_.reset();
  // Copied: an observer may add another while it is told.
  const auto observers = observers_;
  for (const auto& observer : observers)
    if (observer.phaseChanged) observer.phaseChanged(to);
}

bool ApplicationModel::chooseSource() { return moveTo(ApplicationPhase::choosingSource, {ApplicationPhase::library}); }

bool ApplicationModel::cancel() {
  return moveTo(ApplicationPhase::library, {ApplicationPhase::choosingSource, ApplicationPhase::countdown});
}

bool ApplicationModel::beginCountdown() {
  return moveTo(ApplicationPhase::countdown, {ApplicationPhase::choosingSource});
}

bool ApplicationModel::recordingStarted() { return moveTo(ApplicationPhase::recording, {ApplicationPhase::countdown}); }

bool ApplicationModel::stopRecording() { return moveTo(ApplicationPhase::finishing, {ApplicationPhase::recording}); }

bool ApplicationModel::recordingFinished(std::string projectID) {
  if (phase_ != ApplicationPhase::recording && phase_ != ApplicationPhase::finishing) return false;
  openProjectID_ = std::move(projectID);
  enter(ApplicationPhase::editing);
  return true;
}

bool ApplicationModel::recordingDiscarded() {
  return moveTo(ApplicationPhase::library, {ApplicationPhase::recording, ApplicationPhase::finishing});
}

bool ApplicationModel::openProject(std::string projectID) {
  if (phase_ != ApplicationPhase::library) return false;
  openProjectID_ = std::move(projectID);
  enter(ApplicationPhase::editing);
  return true;
}

bool ApplicationModel::closeEditor() { return moveTo(ApplicationPhase::library, {ApplicationPhase::editing}); }

bool ApplicationModel::exportStarted() { return moveTo(ApplicationPhase::exporting, {ApplicationPhase::editing}); }

bool ApplicationModel::exportEnded() { return moveTo(ApplicationPhase::editing, {ApplicationPhase::exporting}); }

bool ApplicationModel::fail(const std::exception& error) {
  // Worded before the phase changes: an observer of the phase may drop what `error` refers to.
  const std::string message = userMessageFor(error);
  switch (phase_) {
    case ApplicationPhase::choosingSource:
    case ApplicationPhase::countdown:
    case ApplicationPhase::recording:
    case ApplicationPhase::finishing: enter(ApplicationPhase::library); break;
    case ApplicationPhase::exporting: enter(ApplicationPhase::editing); break;
    case ApplicationPhase::library:
    case ApplicationPhase::editing: break;
  }
  const auto observers = observers_;
  for (const auto& observer : observers)
    if (observer.showMessage) observer.showMessage(message);
  return true;
}

}  // namespace vumo
