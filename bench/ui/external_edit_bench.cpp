// How long after an agent's commit the open editor shows it, as a person (or a screen reader)
// sees it: Vumo on a private desktop with the sample project open, `vumo cli cut ... --apply`
// run as a process, and the editor's notice "External edits loaded. Press Ctrl+Z to undo." read
// through the accessibility tree, polled every 2 ms from the moment the command returns. Undo in
// the window (which writes the earlier timeline back and takes the notice away) prepares each
// next round outside the timing.
//
// BM_AgentCommit is the command alone, the baseline; BM_AgentCommitShown is the command and the
// wait until the editor shows its edit. Their ratio, and the difference printed to standard error,
// are the editor's part of the delay.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "project/project_library.h"
#include "project/project_store.h"
#include "recording_reporter.h"
#include "sample_project.h"
#include "spawn_and_wait.h"
#include "support/desktop_session_journey.h"

namespace {

using namespace std::chrono_literals;
using vumo::testing::AccessibleNode;
using vumo::testing::DesktopJourney;

const std::string loadedMessage = "External edits loaded. Press Ctrl+Z to undo.";

// The desktop, Vumo and the open editor, made once for all rounds.
struct OpenEditor {
  std::unique_ptr<DesktopJourney> journey;
  vumo::ProjectPackage package;
  std::string projectID;
  AccessibleNode editor, notice, undo;
  std::vector<double> editorSeconds;  // from the command's return to the notice, each round
};

OpenEditor* editorOpen = nullptr;

void prepare() {
  static OpenEditor made;
  made.journey = std::make_unique<DesktopJourney>(vumo::testing::DesktopSessionOptions{}, VUMO_BENCH_SCREENSHOT_DIR);
  DesktopJourney& journey = *made.journey;
  vumo::ProjectStore store;
  made.package = vumo::makeSampleProject(store);
  made.projectID = store.readManifest(made.package).id.string();
  journey.start({vumo::bench::vumoExecutable(VUMO_EXECUTABLE)}, "vumo");
  auto& driver = journey.driver();
  const auto mainWindow = driver.waitForWindow(journey.application(), "Vumo", false, 30s);
  const auto item = driver.waitFor(mainWindow, {"list item", "Sample recording"});
  const auto rect = item.extents().value();
  journey.clickAt(rect.centerX(), rect.centerY());
  journey.press(mainWindow, "Open");
  made.editor = journey.waitFor({"", "Vumo Editor", true}, 60s);
  made.notice = driver.waitFor(made.editor, {"label", "Notice", false, false});
  made.undo = driver.waitFor(made.editor, {"push button", "Undo"});
  editorOpen = &made;
}

// Runs the agent's cut and returns when it has; throws when the command fails.
void commitCut(const vumo::ProjectStore& store) {
  const auto result = editorOpen->journey->session().run(
      {vumo::bench::vumoExecutable(VUMO_EXECUTABLE), "cli", "cut", editorOpen->projectID, "--range", "1000,2500",
       "--apply", "--expect", store.timelineDigest(editorOpen->package)},
      60s);
  if (result.status != 0) throw std::runtime_error("vumo cli cut failed: " + result.standardError);
}

// Undo in the window, and wait until the earlier timeline is on disk and the notice has gone.
void undoInWindow(const vumo::ProjectStore& store, const std::string& digestBefore) {
  auto& driver = editorOpen->journey->driver();
  driver.activate(editorOpen->undo);
  if (!driver.waitUntil(
          [&] { return store.timelineDigest(editorOpen->package) == digestBefore && !editorOpen->notice.showing(); },
          60s))
    throw std::runtime_error("Undo in the editor did not write the earlier timeline back");
}

void BM_AgentCommit(benchmark::State& state) {
  if (!editorOpen) return state.SkipWithError("the editor could not be opened");
  vumo::ProjectStore store;
  for (auto _ : state) {
    const std::string before = store.timelineDigest(editorOpen->package);
    const auto start = std::chrono::steady_clock::now();
    try {
      commitCut(store);
      state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      state.PauseTiming();
      // Wait for the editor before undoing, so the next round starts from a quiet editor.
      if (!editorOpen->journey->driver().waitUntil([&] { return editorOpen->notice.showing(); }, 60s))
        throw std::runtime_error("the editor never showed the agent's edit");
      undoInWindow(store, before);
      state.ResumeTiming();
    } catch (const std::exception& error) {
      return state.SkipWithError(error.what());
    }
  }
}

void BM_AgentCommitShown(benchmark::State& state) {
  if (!editorOpen) return state.SkipWithError("the editor could not be opened");
  vumo::ProjectStore store;
  for (auto _ : state) {
    const std::string before = store.timelineDigest(editorOpen->package);
    const auto start = std::chrono::steady_clock::now();
    try {
      commitCut(store);
      const auto committed = std::chrono::steady_clock::now();
      const auto limit = committed + 60s;
      while (!(editorOpen->notice.showing() && editorOpen->notice.description() == loadedMessage)) {
        if (std::chrono::steady_clock::now() > limit)
          throw std::runtime_error("the editor never showed the agent's edit");
        std::this_thread::sleep_for(2ms);
      }
      const auto shown = std::chrono::steady_clock::now();
      state.SetIterationTime(std::chrono::duration<double>(shown - start).count());
      editorOpen->editorSeconds.push_back(std::chrono::duration<double>(shown - committed).count());
      state.PauseTiming();
      undoInWindow(store, before);
      state.ResumeTiming();
    } catch (const std::exception& error) {
      return state.SkipWithError(error.what());
    }
  }
}

BENCHMARK(BM_AgentCommit)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();
BENCHMARK(BM_AgentCommitShown)->Unit(benchmark::kMillisecond)->Iterations(3)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  // The session gives this process its own home and XDG folders; nothing reaches the real ones.
  const int status = vumo::bench::runAndCompare(
      argc, argv,
      {{"commit shown in the editor / commit alone",
        "BM_AgentCommitShown",
        "BM_AgentCommit",
        {},
        1.0,
        vumo::bench::Clock::wall}},
      [] {
        try {
          prepare();
        } catch (const std::exception& error) {
          std::fprintf(stderr, "cannot open the editor for the benchmark: %s\n", error.what());
        }
      });
  if (editorOpen && !editorOpen->editorSeconds.empty()) {
    std::vector<double> seconds = editorOpen->editorSeconds;
    std::sort(seconds.begin(), seconds.end());
    std::fprintf(stderr, "from the command's return to the editor showing its edit: median %.0f ms, longest %.0f ms\n",
                 seconds[seconds.size() / 2] * 1000, seconds.back() * 1000);
  }
  return status;
}
