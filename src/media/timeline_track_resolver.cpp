#include "media/timeline_track_resolver.h"

#include "media/media_errors.h"

namespace vumo {

namespace {

ResolvedTrack take(const MediaContainer& container, std::int64_t index, MediaStreamType expected) {
  if (index < 0 || index >= container.streamCount()) throw TimelineCompositionError::missingTrack(index);
  if (container.streamType(index) != expected)
    throw TimelineCompositionError::mediaTypeMismatch(index, expected == MediaStreamType::video ? "video" : "audio");
  return {index, container.streamTimeRange(index)};
}

const MediaTrack* firstOfKind(const ProjectManifest& manifest, MediaTrackKind kind) {
  for (const MediaTrack& track : manifest.media.tracks)
    if (track.kind == kind) return &track;
  return nullptr;
}

}  // namespace

std::vector<ResolvedAudioTrack> ResolvedTimelineTracks::audioByKind() const {
  std::vector<ResolvedAudioTrack> tracks;
  if (systemAudio) tracks.push_back({MediaTrackKind::systemAudio, *systemAudio});
  if (microphone) tracks.push_back({MediaTrackKind::microphone, *microphone});
  return tracks;
}

std::optional<ResolvedTrack> ResolvedTimelineTracks::track(MediaTrackKind kind) const {
  switch (kind) {
    case MediaTrackKind::screen: return screen;
    case MediaTrackKind::systemAudio: return systemAudio;
    case MediaTrackKind::microphone: return microphone;
  }
  return std::nullopt;
}

ResolvedTimelineTracks TimelineTrackResolver::resolve(const MediaContainer& container,
                                                      const ProjectManifest& manifest) {
  const MediaTrack* screen = firstOfKind(manifest, MediaTrackKind::screen);
  if (screen == nullptr) throw TimelineCompositionError::missingScreenDescription();
  ResolvedTimelineTracks tracks;
  tracks.screen = take(container, screen->trackIndex, MediaStreamType::video);
  if (manifest.webcam) tracks.webcam = take(container, manifest.webcam->trackIndex, MediaStreamType::video);
  if (const MediaTrack* system = firstOfKind(manifest, MediaTrackKind::systemAudio))
    tracks.systemAudio = take(container, system->trackIndex, MediaStreamType::audio);
  if (const MediaTrack* microphone = firstOfKind(manifest, MediaTrackKind::microphone))
    tracks.microphone = take(container, microphone->trackIndex, MediaStreamType::audio);
  return tracks;
}

}  // namespace vumo
