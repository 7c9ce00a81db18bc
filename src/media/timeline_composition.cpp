#include "media/timeline_composition.h"

#include <algorithm>
#include <cmath>

#include "media/media_errors.h"
#include "shared/cancellation.h"

namespace vumo {

namespace {

// Source offset to sequence offset at `permille`, without an intermediate product that could
// overflow for any offset a recording can have.
std::int64_t sequenceOffsetRoundingDown(std::int64_t sourceOffset, std::int64_t permille) {
  return (sourceOffset / permille) * 1000 + ((sourceOffset % permille) * 1000) / permille;
}

std::int64_t sequenceOffsetRoundingUp(std::int64_t sourceOffset, std::int64_t permille) {
  return (sourceOffset / permille) * 1000 + ((sourceOffset % permille) * 1000 + permille - 1) / permille;
}

CompositionTrack compose(CompositionTrackRole role, const ResolvedTrack& track, const TimelineMapper& mapper,
                         const std::stop_token& stopToken) {
  return {role, track.streamIndex, TimelineCompositionBuilder::insertSegments(track.timeRange, mapper, stopToken)};
}

void extendToEnd(ProjectTime& latest, const CompositionTrack& track) {
  for (const CompositionPiece& piece : track.pieces) latest = std::max(latest, piece.sequenceEnd());
}

double volumeOf(const AudioTrackEdit& edit) {
  if (edit.isMuted) return 0;
  double gain = std::min(edit.gainDecibels, AudioMixEdit::maximumGainDecibels);
  if (gain <= AudioMixEdit::minimumGainDecibels) return 0.001;
  return std::pow(10.0, gain / 20.0);
}

}  // namespace

std::vector<CompositionPiece> TimelineCompositionBuilder::insertSegments(const ProjectTimeRange& trackTimeRange,
                                                                         const TimelineMapper& mapper,
                                                                         std::stop_token stopToken) {
  const std::int64_t trackStart = trackTimeRange.start.nanoseconds;
  const std::int64_t trackEnd = trackTimeRange.end().nanoseconds;
  std::vector<CompositionPiece> pieces;
  for (const TimelineSegmentProjection& projection : mapper.projections()) {
    throwIfCancelled(stopToken);
    const std::int64_t s = projection.segment.sourceRange.start.nanoseconds;
    const std::int64_t e = projection.segment.sourceRange.end().nanoseconds;
    const std::int64_t clipStart = std::max(trackStart, s);
    const std::int64_t clipEnd = std::min(trackEnd, e);
    if (clipStart >= clipEnd) continue;
    const std::int64_t rate = projection.segment.playbackRate.permille;
    const std::int64_t startOffset = sequenceOffsetRoundingDown(clipStart - s, rate);
    const std::int64_t endOffset = sequenceOffsetRoundingUp(clipEnd - s, rate);
    const std::int64_t d = projection.sequenceRange.duration.nanoseconds;
    const std::int64_t a = std::min(d, startOffset);
    const std::int64_t b = std::max(a, endOffset);
    const std::int64_t c = std::min(d, b);
    if (a >= c) continue;
    pieces.push_back({ProjectTimeRange::fromStartEnd(ProjectTime{clipStart}, ProjectTime{clipEnd}),
                      projection.sequenceRange.start + ProjectTime{a}, ProjectTime{c - a},
                      static_cast<std::int32_t>(rate)});
  }
  return pieces;
}

std::optional<std::vector<AudioMixInput>> TimelineCompositionBuilder::makeAudioMix(
    const std::vector<ResolvedAudioTrack>& tracks, const AudioMixEdit& settings) {
  if (tracks.empty()) return std::nullopt;
  std::vector<AudioMixInput> mix;
  for (const ResolvedAudioTrack& track : tracks) {
    double volume = 1.0;
    if (track.kind == MediaTrackKind::systemAudio) volume = volumeOf(settings.systemAudio);
    if (track.kind == MediaTrackKind::microphone) volume = volumeOf(settings.microphone);
    mix.push_back({track.kind, track.track.streamIndex, volume});
  }
  return mix;
}

TimelineCompositionPlan TimelineCompositionBuilder::build(const TimelineMapper& mapper,
                                                          const ResolvedTimelineTracks& tracks,
                                                          const AudioMixEdit& audioMix, std::stop_token stopToken) {
  TimelineCompositionPlan plan{
      mapper, compose(CompositionTrackRole::screen, tracks.screen, mapper, stopToken), {}, {}, {}, {}};
  if (tracks.webcam) plan.webcam = compose(CompositionTrackRole::webcam, *tracks.webcam, mapper, stopToken);
  const std::vector<ResolvedAudioTrack> audio = tracks.audioByKind();
  for (const ResolvedAudioTrack& track : audio) {
    auto role =
        track.kind == MediaTrackKind::microphone ? CompositionTrackRole::microphone : CompositionTrackRole::systemAudio;
    plan.audioTracks.push_back(compose(role, track.track, mapper, stopToken));
  }
  plan.audioMix = makeAudioMix(audio, audioMix);

  // The sequence is as long as its longest track; a camera or audio track that ends early leaves
  // a hole but does not shorten it.
  extendToEnd(plan.sequenceDuration, plan.screen);
  if (plan.webcam) extendToEnd(plan.sequenceDuration, *plan.webcam);
  for (const CompositionTrack& track : plan.audioTracks) extendToEnd(plan.sequenceDuration, track);
  const std::int64_t difference = plan.sequenceDuration.nanoseconds - mapper.sequenceDuration().nanoseconds;
  if (difference > 1 || difference < -1) throw TimelineCompositionError::durationMismatch();
  return plan;
}

TimelineCompositionPlan TimelineCompositionBuilder::build(const ProjectSnapshot& snapshot, std::stop_token stopToken) {
  TimelineMapper mapper(snapshot.timeline, snapshot.manifest.duration);
  MediaContainer container = MediaContainer::open(snapshot, stopToken);
  ResolvedTimelineTracks tracks = TimelineTrackResolver::resolve(container, snapshot.manifest);
  return build(mapper, tracks, snapshot.timeline.audioMix, std::move(stopToken));
}

}  // namespace vumo
