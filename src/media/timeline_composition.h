#pragma once

// The edited film as a plan: for every track of the movie, which source ranges play where in the
// sequence and at what rate. Speed changes and cuts are settled here, before any frame or sample
// is read. Preview and export both carry out this one plan, so what plays in the editor is what
// an export writes; there are no separate preview and export compositions to drift apart.
//
// The plan is plain data, computed with integers only; `TimelineCompositionBuilder` makes it from
// a snapshot, and its pure half from a mapper and resolved tracks, without any media.

#include <cstdint>
#include <optional>
#include <stop_token>
#include <vector>

#include "media/timeline_track_resolver.h"
#include "project/project_snapshot.h"
#include "shared/media_track_kind.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"
#include "timeline/timeline_mapper.h"

namespace vumo {

// One retained stretch of a source track placed in the sequence. When the rate is not 1000
// permille, the source range is stretched or squeezed to last `sequenceDuration`.
struct CompositionPiece {
  ProjectTimeRange sourceRange;  // within the track's own time range
  ProjectTime sequenceStart;
  ProjectTime sequenceDuration;
  std::int32_t ratePermille = 1000;

  ProjectTime sequenceEnd() const { return sequenceStart + sequenceDuration; }
  friend bool operator==(const CompositionPiece&, const CompositionPiece&) = default;
};

enum class CompositionTrackRole { screen, webcam, systemAudio, microphone };

// The pieces of one stream in sequence order. A stream shorter than the screen simply has fewer
// pieces: the sequence has a hole there.
struct CompositionTrack {
  CompositionTrackRole role = CompositionTrackRole::screen;
  std::int64_t streamIndex = 0;
  std::vector<CompositionPiece> pieces;

  friend bool operator==(const CompositionTrack&, const CompositionTrack&) = default;
};

// The level of one audio track for the whole sequence. Changed speeds keep their pitch.
struct AudioMixInput {
  MediaTrackKind kind = MediaTrackKind::systemAudio;
  std::int64_t streamIndex = 0;
  double volume = 1.0;  // linear gain, 0 for silence

  friend bool operator==(const AudioMixInput&, const AudioMixInput&) = default;
};

struct TimelineCompositionPlan {
  TimelineMapper mapper;
  CompositionTrack screen;
  std::optional<CompositionTrack> webcam;
  std::vector<CompositionTrack> audioTracks;           // system audio, then microphone
  std::optional<std::vector<AudioMixInput>> audioMix;  // none without audio tracks
  // The latest piece end over all tracks; within 1 ns of the mapper's sequence duration.
  ProjectTime sequenceDuration;
};

class TimelineCompositionBuilder {
 public:
  // Maps the snapshot's timeline over the manifest's duration, opens the package's movie, resolves
  // its tracks and builds the plan. Throws what TimelineMapper, MediaContainer::open and
  // TimelineTrackResolver::resolve throw, TimelineCompositionError::durationMismatch, or
  // CancelledError (checked before every segment).
  static TimelineCompositionPlan build(const ProjectSnapshot& snapshot, std::stop_token stopToken = {});

  // The plan for tracks already resolved: no media is touched.
  static TimelineCompositionPlan build(const TimelineMapper& mapper, const ResolvedTimelineTracks& tracks,
                                       const AudioMixEdit& audioMix, std::stop_token stopToken = {});

  // Every segment of the mapper that overlaps the track's time range, as pieces. Source offsets
  // become sequence offsets exactly: a piece's start rounds down and its end up, so neighbouring
  // pieces never leave a nanosecond between them.
  static std::vector<CompositionPiece> insertSegments(const ProjectTimeRange& trackTimeRange,
                                                      const TimelineMapper& mapper, std::stop_token stopToken = {});

  // The volume of each track; none when there are no tracks. A muted track is silent; otherwise
  // 10^(gain / 20) for the track's gain capped at +12 dB, and 0.001 at -60 dB or below.
  static std::optional<std::vector<AudioMixInput>> makeAudioMix(const std::vector<ResolvedAudioTrack>& tracks,
                                                                const AudioMixEdit& settings);
};

}  // namespace vumo
