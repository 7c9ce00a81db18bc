#pragma once

// The `.cswf` file in a package that keeps a track's waveform envelope: 40 bytes of little-endian
// header (magic "CSWF", version 1, the track index, the movie's size and modification time, the
// bucket length, the peak count), then four bytes a peak. Reading it needs no decoder, so the
// command line answers from a warm cache without loading the media engine.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>

#include "analysis/waveform_envelope.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"

namespace vumo {

// The identity of a movie's bytes as far as the cache is concerned.
struct MediaFingerprint {
  std::uint64_t size = 0;
  std::int64_t modifiedNanoseconds = 0;
  friend bool operator==(const MediaFingerprint&, const MediaFingerprint&) = default;
};

struct WaveformCache {
  // A cache that would hold more peaks than 48 hours of audio is not read.
  static constexpr std::uint64_t maximumCachedPeaks = 48ull * 3600 * 50;
  static constexpr std::size_t headerBytes = 40;

  static std::filesystem::path path(const ProjectSnapshot& snapshot, MediaTrackKind kind);
  // Size and modification time of a regular file (the time as whole nanoseconds of a double
  // count of seconds, truncated). Throws FileError, MediaContainerError::notRegularFile.
  static MediaFingerprint fingerprint(const std::filesystem::path& media);
  // Throws WaveformServiceError::invalidCache for a file that fails any check, FileError when it
  // cannot be read (or is no regular file, or is too large to be a cache).
  static WaveformEnvelope read(const std::filesystem::path& path, MediaTrackKind kind, std::int64_t trackIndex,
                               const MediaFingerprint& fingerprint);
  // One atomic replace. Throws FileError.
  static void write(const std::filesystem::path& path, const WaveformEnvelope& envelope, std::int64_t trackIndex,
                    const MediaFingerprint& fingerprint);

  // The snapshot's envelope of `kind` when its cache is present and current; none for anything
  // else (no such track, a stale, damaged or unreadable cache), which only means: decode.
  static std::optional<WaveformEnvelope> current(const ProjectSnapshot& snapshot, MediaTrackKind kind);
};

}  // namespace vumo
