#pragma once

#include <cstdint>
#include <filesystem>

#include "project/project_store.h"

namespace vumo {

// A finished project made without a screen: a generated movie (test pattern and, optionally, a
// tone for system audio), pointer events with left clicks at chosen moments, and the first timeline
// a recording would get. Demos and end-to-end tests use it as their recording.
struct SampleProjectOptions {
  std::string title = "Sample recording";
  ProjectTime duration = ProjectTime::fromMilliseconds(12'000);
  PixelSize size{640, 360};
  int framesPerSecond = 30;
  bool withSystemAudio = true;
  // Left clicks, in source milliseconds; automatic zooms are made from them.
  std::vector<std::int64_t> clickMilliseconds{2'000, 2'400, 2'900, 7'000, 7'300};
};

// Generates the movie with the `ffmpeg` program; throws FileError when it cannot.
ProjectPackage makeSampleProject(ProjectStore& store, const SampleProjectOptions& options = {});

}  // namespace vumo
