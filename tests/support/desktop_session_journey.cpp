#include "support/desktop_session_journey.h"

#include <gtest/gtest.h>

namespace vumo::testing {

using namespace std::chrono_literals;

DesktopJourney::DesktopJourney(DesktopSessionOptions options, std::filesystem::path screenshotFolder)
    : session_(options), driver_(options.scaleFactor.value_or(1.0)), folder_(std::move(screenshotFolder)) {
  std::filesystem::remove_all(folder_);
  std::filesystem::create_directories(folder_);
}

void DesktopJourney::start(const std::vector<std::string>& words, const std::string& name,
                           std::chrono::milliseconds timeout) {
  program_ = session_.start(words, name);
  application_ = driver_.waitForApplication(program_->pid(), timeout);
}

std::runtime_error DesktopJourney::failure(const std::string& what, const std::exception& error) {
  const auto shot = folder_ / ("failed-step-" + std::to_string(steps_) + ".png");
  std::string shotText = shot.string();
  try {
    saveScreenshot(session_.display(), shot);
  } catch (const std::exception& shotError) {
    shotText = std::string("none (") + shotError.what() + ")";
  }
  std::string state, log = "(not started)";
  if (program_) {
    if (!program_->running())
      state = "\nthe program has ended with status " + std::to_string(program_->waitForExit(0ms).value_or(-1));
    log = program_->logTail(3000);
  }
  return std::runtime_error("step " + std::to_string(steps_) + " (" + what + ") failed: " + error.what() +
                            "\nscreenshot: " + shotText + state + "\nthe end of its log:\n" + log);
}

AccessibleNode DesktopJourney::waitFor(const NodeQuery& query, std::chrono::milliseconds timeout) {
  return driver_.waitFor(application_, query, timeout);
}

void DesktopJourney::press(const AccessibleNode& root, const std::string& button) {
  driver_.activate(driver_.waitFor(root, {"push button", button}));
}

void DesktopJourney::xdotool(const std::vector<std::string>& arguments) {
  std::vector<std::string> words{requireProgram("xdotool", "xdotool").string()};
  words.insert(words.end(), arguments.begin(), arguments.end());
  const auto result = session_.run(words, 20s);
  if (result.status != 0 || result.timedOut)
    throw std::runtime_error("xdotool " + ::testing::PrintToString(arguments) + " failed: " + result.standardError);
}

void DesktopJourney::clickAt(int x, int y) {
  xdotool({"mousemove", "--sync", std::to_string(x), std::to_string(y), "click", "1"});
}

void DesktopJourney::drag(int fromX, int fromY, int toX, int toY) {
  std::vector<std::string> words{"mousemove", "--sync", std::to_string(fromX), std::to_string(fromY), "mousedown", "1"};
  constexpr int parts = 4;
  for (int part = 1; part <= parts; ++part)
    words.insert(words.end(),
                 {"sleep", "0.05", "mousemove", "--sync", std::to_string(fromX + (toX - fromX) * part / parts),
                  std::to_string(fromY + (toY - fromY) * part / parts)});
  words.insert(words.end(), {"sleep", "0.05", "mouseup", "1"});
  xdotool(words);
}

std::filesystem::path DesktopJourney::screenshot(const std::string& name, const AccessibleNode& window) {
  const auto file = folder_ / (name + ".png");
  saveScreenshot(session_.display(), file, window ? window.extents() : std::nullopt);
  return file;
}

}  // namespace vumo::testing
