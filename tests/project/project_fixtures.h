#pragma once

// Builders shared by the project store tests: sources, stores on temporary folders, finished
// projects with a placeholder media file, documents, movies made with the ffmpeg command line.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "project/project_store.h"
#include "shared/files.h"
#include "shared/json.h"
#include "support/test_support.h"

namespace vumo::project_testing {

inline CaptureSourceDescriptor displaySource() {
  CaptureSourceDescriptor source;
  source.kind = CaptureSourceKind::display;
  source.nativeID = 1;
  source.title = "Built-in Display";
  source.globalFrame = {0, 0, 1920, 1080};
  source.initialPixelSize = {1920, 1080};
  return source;
}

inline const ProjectTime tenSeconds = ProjectTime::fromMilliseconds(10'000);

// One clip over the whole source; the blur tells timelines apart.
inline EditTimeline timelineWithBlur(double blur, ProjectTime duration = tenSeconds) {
  EditTimeline t = EditTimeline::empty();
  t.segments.push_back({Uuid::random(), {ProjectTime::zero(), duration}, TimelinePlaybackRate::normal()});
  t.motionBlurAmount = blur;
  return t;
}

inline CaptionDocument captionsWithCue(const std::string& text,
                                       ProjectTime end = ProjectTime::fromMilliseconds(1'000)) {
  CaptionDocument document;
  document.sourceAudioDigest = std::string(64, 'a');
  document.basedOnTimelineDigest = std::string(64, 'b');
  document.cues.push_back({Uuid::random(), ProjectTime::zero(), end, text, {}, {}});
  return document;
}

// A valid timeline document that claims `schema`, formatted otherwise than ours, so the bytes of
// a backup are recognisable.
inline std::string documentAtSchema(int schema) {
  Json j = parseJson(encodeEditTimeline(timelineWithBlur(0.5)));
  j["schemaVersion"] = schema;
  return j.dump(1);
}

inline std::set<std::string> entryNames(const std::filesystem::path& folder) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(folder)) names.insert(e.path().filename().string());
  return names;
}

// A store on its own temporary projects folder.
struct StoreFixture {
  testing::TemporaryDirectory folder;
  ProjectStore store{folder.path() / "Projects"};

  // A finished project whose media is a placeholder file (enough for listing and lookups).
  ProjectPackage finishedProject(ProjectTime duration = ProjectTime::fromMilliseconds(10'000),
                                 const std::string& mediaBytes = "placeholder") {
    auto created = store.createProject(displaySource(), RecordingOptions{}, {1920, 1080}, std::nullopt, std::nullopt);
    writeFileAtomically(created.package.mediaPath(), mediaBytes);
    created.manifest.duration = duration;
    return store.finish(created.package, created.manifest);
  }
};

// Every file under a folder with its bytes: two equal maps mean nothing was touched.
inline std::map<std::string, std::string> folderContents(const std::filesystem::path& root) {
  std::map<std::string, std::string> contents;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.is_regular_file())
      contents[std::filesystem::relative(entry.path(), root).string()] = readFile(entry.path(), SIZE_MAX);
    else
      contents[std::filesystem::relative(entry.path(), root).string() + "/"] = "";
  }
  return contents;
}

// Runs `work` in a child process and reports whether it returned (or threw) within `limit`; a
// child still running then is killed. For calls that must never block, so that a regression fails
// the test instead of hanging the suite.
inline bool finishesWithin(std::chrono::milliseconds limit, const std::function<void()>& work) {
  pid_t pid = ::fork();
  if (pid < 0) return false;
  if (pid == 0) {
    try {
      work();
    } catch (...) {
    }
    ::_exit(0);
  }
  const auto deadline = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Sets a file's modification time `by` into the past.
inline void makeOlder(const std::filesystem::path& path, std::chrono::minutes by) {
  std::filesystem::last_write_time(path, std::filesystem::file_time_type::clock::now() - by);
}

// Runs the ffmpeg command line quietly; true on success.
inline bool runFFmpeg(const std::string& arguments) {
  std::string command = "ffmpeg -nostdin -v error -y " + arguments + " >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace vumo::project_testing
