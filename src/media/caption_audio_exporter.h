#pragma once

// Writes one audio track of a recording as the WAV file a speech model reads: 16,000 Hz, mono,
// signed 16-bit little-endian, behind the canonical 44-byte RIFF/WAVE header and nothing else
// (no LIST chunk), so a reader may take the samples from byte 44 on. The digest of these bytes ties
// captions to the audio they were made from.

#include <filesystem>
#include <stop_token>

#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"

namespace vumo {

struct CaptionAudioFormat {
  static constexpr int sampleRate = 16'000;
  static constexpr int channels = 1;
  static constexpr int bitsPerSample = 16;
  static constexpr std::size_t headerBytes = 44;
  static constexpr std::string_view fileName = "source.wav";
};

// Holds no state.
class CaptionAudioExporter {
 public:
  // Writes the track of `kind` to `target` (conventionally a "source.wav"), replacing any file
  // there. Silence stands in where the track has a gap, so sample i lies at source time
  // i ÷ 16,000 s. Throws CaptionAudioExporterError (missingTrack when the manifest or the movie
  // has no such audio track), what MediaContainer and TimelineTrackResolver throw, or
  // CancelledError (checked between buffers). A partly written file stays after a failure.
  static void exportAudio(const ProjectSnapshot& snapshot, MediaTrackKind kind, const std::filesystem::path& target,
                          std::stop_token stopToken = {});
};

}  // namespace vumo
