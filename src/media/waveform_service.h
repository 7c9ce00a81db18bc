#pragma once

// One audio track of a recording reduced to a peak per 20 ms (WaveformEnvelope), cached in the
// package as `cache/waveform/<kind>.cswf`, keyed by the size and modification time of the movie.
//
// Cache file, little-endian, 40 bytes of header then the peaks:
//   0  4 "CSWF"   4 2 version 1   6 2 track index (clamped to 0...65535)
//   8  8 movie size in bytes      16 8 movie modification time, ns since 1970 (signed)
//   24 8 bucket, 20,000,000 ns    32 8 peak count n     40 4 × n: minimum, maximum (signed 16-bit)

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stop_token>

#include "analysis/waveform_envelope.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"

namespace vumo {

// What the command service holds to get envelopes; tests put a stand-in in its place.
class WaveformProviding {
 public:
  virtual ~WaveformProviding() = default;
  // The envelope of the track of `kind` (systemAudio or microphone). `progress` gets values from 0
  // to 1 on the calling thread; 1.0 only once the envelope is complete. Throws
  // WaveformServiceError, what MediaContainer and TimelineTrackResolver throw, FileError, or
  // CancelledError.
  virtual WaveformEnvelope envelope(MediaTrackKind kind, const ProjectSnapshot& snapshot,
                                    const std::function<void(double)>& progress, std::stop_token stopToken) = 0;
};

// Keeps no state but the files: every request reads the cache (waveform_cache.h) anew. Requests to one service run
// one after the other.
class WaveformService final : public WaveformProviding {
 public:
  WaveformEnvelope envelope(MediaTrackKind kind, const ProjectSnapshot& snapshot,
                            const std::function<void(double)>& progress, std::stop_token stopToken) override;

 private:
  std::mutex oneRequestAtATime_;
};

}  // namespace vumo
