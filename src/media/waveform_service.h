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

// The identity of a movie's bytes as far as the cache is concerned.
struct MediaFingerprint {
  std::uint64_t size = 0;
  std::int64_t modifiedNanoseconds = 0;
  friend bool operator==(const MediaFingerprint&, const MediaFingerprint&) = default;
};

// Keeps no state but the files: every request reads the cache anew. Requests to one service run
// one after the other.
class WaveformService final : public WaveformProviding {
 public:
  // A cache that would hold more peaks than 48 hours of audio is not read.
  static constexpr std::uint64_t maximumCachedPeaks = 48ull * 3600 * 50;
  static constexpr std::size_t cacheHeaderBytes = 40;

  WaveformEnvelope envelope(MediaTrackKind kind, const ProjectSnapshot& snapshot,
                            const std::function<void(double)>& progress, std::stop_token stopToken) override;

  static std::filesystem::path cachePath(const ProjectSnapshot& snapshot, MediaTrackKind kind);
  // Size and modification time of a regular file (the time as whole nanoseconds of a double
  // count of seconds, truncated). Throws FileError, MediaContainerError::notRegularFile.
  static MediaFingerprint fingerprint(const std::filesystem::path& media);
  // Throws WaveformServiceError::invalidCache for a file that fails any check, FileError when it
  // cannot be read (or is no regular file, or is too large to be a cache).
  static WaveformEnvelope readCache(const std::filesystem::path& path, MediaTrackKind kind, std::int64_t trackIndex,
                                    const MediaFingerprint& fingerprint);
  // One atomic replace. Throws FileError.
  static void writeCache(const std::filesystem::path& path, const WaveformEnvelope& envelope, std::int64_t trackIndex,
                         const MediaFingerprint& fingerprint);

 private:
  std::mutex oneRequestAtATime_;
};

}  // namespace vumo
