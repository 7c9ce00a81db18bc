#pragma once

// A program's journey through a private desktop, told as numbered steps: the test drives the
// program through the accessibility tree and with real pointer and keyboard input, and photographs
// the windows it reaches. A step that fails is reported with its number and words, what went
// wrong, a screenshot of the screen at that moment and the end of the program's log, so a person
// can see where the journey broke without running it again.

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/atspi_driver.h"
#include "support/desktop_session.h"

namespace vumo::testing {

class DesktopJourney {
 public:
  // Screenshots go to `screenshotFolder`, emptied first.
  DesktopJourney(DesktopSessionOptions options, std::filesystem::path screenshotFolder);
  DesktopJourney(const DesktopJourney&) = delete;
  DesktopJourney& operator=(const DesktopJourney&) = delete;

  DesktopSession& session() { return session_; }
  AtspiDriver& driver() { return driver_; }
  // Device pixels per Qt pixel of the programs in the session.
  double scale() const { return session_.options().scaleFactor.value_or(1.0); }
  const std::filesystem::path& screenshotFolder() const { return folder_; }

  // Starts the program of the journey and waits until it has joined the accessibility tree.
  void start(const std::vector<std::string>& words, const std::string& name,
             std::chrono::milliseconds timeout = std::chrono::seconds(60));
  const AccessibleNode& application() const { return application_; }
  DesktopProgram& program() { return *program_; }

  // Runs one step; a failure comes out as one error that tells the whole story.
  template <class Work>
  auto step(const std::string& what, Work&& work) -> decltype(work()) {
    ++steps_;
    try {
      return work();
    } catch (const std::exception& error) {
      throw failure(what, error);
    }
  }

  // A node anywhere in the application (all its windows), once it shows.
  AccessibleNode waitFor(const NodeQuery& query, std::chrono::milliseconds timeout = std::chrono::seconds(20));
  // Presses the push button named `button` under `root` through the tree.
  void press(const AccessibleNode& root, const std::string& button);

  void xdotool(const std::vector<std::string>& arguments);
  // A left click at a point in root pixels.
  void clickAt(int x, int y);
  // Presses at `from`, moves to `to` in a few steps (as a hand does, so the program sees a drag)
  // and releases there; root pixels.
  void drag(int fromX, int fromY, int toX, int toY);

  // Saves the picture of `window` (the whole screen when none) as <name>.png; returns its path.
  std::filesystem::path screenshot(const std::string& name, const AccessibleNode& window = {});

 private:
  std::runtime_error failure(const std::string& what, const std::exception& error);

  DesktopSession session_;
  AtspiDriver driver_;
  std::filesystem::path folder_;
  std::unique_ptr<DesktopProgram> program_;
  AccessibleNode application_;
  int steps_ = 0;
};

}  // namespace vumo::testing
