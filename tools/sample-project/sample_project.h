#pragma once

#include <cstdint>
#include <filesystem>
#include <utility>
#include <vector>

#include "project/project_store.h"

namespace vumo {

// A finished project made without a screen: a generated movie (test pattern, a tone for system
// audio, and for the microphone voice-like bursts over a faint hiss), pointer events that move in
// chosen stretches and click at chosen moments, and the first timeline a recording would get.
// Demos and end-to-end tests use it as their recording: where the voice pauses and the pointer
// rests at once, `idle` has something to find.
struct SampleProjectOptions {
  std::string title = "Sample recording";
  ProjectTime duration = ProjectTime::fromMilliseconds(12'000);
  PixelSize size{640, 360};
  int framesPerSecond = 30;
  bool withSystemAudio = true;
  bool withMicrophone = true;
  // Source milliseconds [start, end) in which the microphone hears speech; a hiss about 54 dB
  // below full scale fills the rest.
  std::vector<std::pair<std::int64_t, std::int64_t>> speechMilliseconds{{400, 3'800}, {6'200, 8'400}, {10'400, 11'600}};
  // Source milliseconds [start, end) in which the pointer moves every 50 ms; it rests elsewhere.
  std::vector<std::pair<std::int64_t, std::int64_t>> pointerMilliseconds{{0, 3'500}, {6'500, 8'000}};
  // Left clicks, in source milliseconds; automatic zooms are made from them.
  std::vector<std::int64_t> clickMilliseconds{2'000, 2'400, 2'900, 7'000, 7'300};
};

// Generates the movie with the `ffmpeg` program; throws FileError when it cannot.
ProjectPackage makeSampleProject(ProjectStore& store, const SampleProjectOptions& options = {});

// The microphone track of a sample project on its own, as a 48 kHz mono 16-bit WAV file `duration`
// long: the same voice-like bursts in `speechMilliseconds` over the same hiss, made by the same
// ffmpeg source. The demo plays it into a sound server while it records a real desktop, so that
// recording hears what a sample project holds. Throws FileError when ffmpeg cannot write it.
void writeSpeechAudio(const std::filesystem::path& file,
                      const std::vector<std::pair<std::int64_t, std::int64_t>>& speechMilliseconds,
                      ProjectTime duration);

}  // namespace vumo
