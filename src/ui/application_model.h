#pragma once

// What the desktop application is doing, as a plain state machine: the windows are views of it and
// the flows (recording, editing, export) drive it. Nothing here touches Qt, so every transition and
// every failure path is tested without a display.
//
// One phase at a time keeps a person from starting a second recorder while a recording finishes,
// or closing the editor under a running export: a request the phase does not allow is refused
// (false) and changes nothing.

#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shared/name_table.h"

namespace vumo {

enum class ApplicationPhase { library, choosingSource, countdown, recording, finishing, editing, exporting };

template <>
struct EnumNames<ApplicationPhase> {
  static constexpr std::string_view typeName = "application phase";
  static constexpr NameTable<ApplicationPhase, 7> table{{
      {ApplicationPhase::library, "library"},
      {ApplicationPhase::choosingSource, "choosing-source"},
      {ApplicationPhase::countdown, "countdown"},
      {ApplicationPhase::recording, "recording"},
      {ApplicationPhase::finishing, "finishing"},
      {ApplicationPhase::editing, "editing"},
      {ApplicationPhase::exporting, "exporting"},
  }};
};

// Not thread-safe: used on the main loop only. Observers are called after the change, so an
// observer that reads `phase()` sees the new one and may drive the model further.
class ApplicationModel {
 public:
  struct Observer {
    std::function<void(ApplicationPhase)> phaseChanged;
    // A failure worded for a person. Exactly one view (the main window) sets it, so each failure
    // is shown once.
    std::function<void(const std::string& message)> showMessage;
  };

  explicit ApplicationModel(Observer observer = {});
  ApplicationModel(const ApplicationModel&) = delete;
  ApplicationModel& operator=(const ApplicationModel&) = delete;

  // Further views (the recording flow, the tray) that follow the phase. Called in the order added,
  // after the constructor's observer.
  void addObserver(Observer observer);

  ApplicationPhase phase() const noexcept { return phase_; }
  // The project the editor shows (editing and exporting), none otherwise.
  const std::optional<std::string>& openProjectID() const noexcept { return openProjectID_; }

  bool chooseSource();                            // library → choosingSource
  bool cancel();                                  // choosingSource, countdown → library
  bool beginCountdown();                          // choosingSource → countdown
  bool recordingStarted();                        // countdown → recording
  bool stopRecording();                           // recording → finishing
  bool recordingFinished(std::string projectID);  // recording, finishing → editing
  bool recordingDiscarded();                      // recording, finishing → library
  bool openProject(std::string projectID);        // library → editing
  bool closeEditor();                             // editing → library
  bool exportStarted();                           // editing → exporting
  bool exportEnded();                             // exporting → editing

  // A failure of whatever the phase was doing. A recording that fails to start, or fails while it
  // runs or finishes, returns to the library; a failed export returns to the editor; a failure
  // while editing (or in the library) keeps the phase. The failure is worded by userMessageFor and
  // shown once. Always allowed, so always true.
  bool fail(const std::exception& error);

 private:
  bool moveTo(ApplicationPhase to, std::initializer_list<ApplicationPhase> from);
  void enter(ApplicationPhase to);

  ApplicationPhase phase_ = ApplicationPhase::library;
  std::optional<std::string> openProjectID_;
  std::vector<Observer> observers_;
};

}  // namespace vumo
