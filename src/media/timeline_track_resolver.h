#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "media/media_container.h"
#include "project/project_manifest.h"
#include "shared/media_track_kind.h"
#include "shared/project_time.h"

namespace vumo {

// One stream of the movie as a composition or a reader sees it.
struct ResolvedTrack {
  std::int64_t streamIndex = 0;  // the container's stream index, the manifest's trackIndex
  ProjectTimeRange timeRange;    // the stream's start and duration in nanoseconds

  friend bool operator==(const ResolvedTrack&, const ResolvedTrack&) = default;
};

struct ResolvedAudioTrack {
  MediaTrackKind kind = MediaTrackKind::systemAudio;
  ResolvedTrack track;

  friend bool operator==(const ResolvedAudioTrack&, const ResolvedAudioTrack&) = default;
};

// The tracks of one package movie.
struct ResolvedTimelineTracks {
  ResolvedTrack screen;
  std::optional<ResolvedTrack> webcam;
  std::optional<ResolvedTrack> systemAudio;
  std::optional<ResolvedTrack> microphone;

  // The audio tracks present, system audio before microphone: the order of every export.
  std::vector<ResolvedAudioTrack> audioByKind() const;
  // The track of `kind` (screen included); none when the movie has no such track.
  std::optional<ResolvedTrack> track(MediaTrackKind kind) const;

  friend bool operator==(const ResolvedTimelineTracks&, const ResolvedTimelineTracks&) = default;
};

// Which stream of the movie is which. The manifest's track indices are the container's stream
// indices.
struct TimelineTrackResolver {
  // Throws TimelineCompositionError: missingScreenDescription, missingTrack(index) for an index
  // outside the streams, mediaTypeMismatch(index, expected) for a stream of another type.
  static ResolvedTimelineTracks resolve(const MediaContainer& container, const ProjectManifest& manifest);
};

}  // namespace vumo
