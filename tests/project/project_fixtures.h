#pragma once

// Builders shared by the project store tests: sources, stores on temporary folders, finished
// projects with a placeholder media file, movies made with the ffmpeg command line.

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "project/project_store.h"
#include "shared/files.h"
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

// Runs the ffmpeg command line quietly; true on success.
inline bool runFFmpeg(const std::string& arguments) {
  std::string command = "ffmpeg -nostdin -v error -y " + arguments + " >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

}  // namespace vumo::project_testing
