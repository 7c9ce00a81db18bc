#include "cli/project_descriptions.h"

#include <algorithm>

namespace vumo {

CLIProjectSummary ProjectInspector::summary(const ProjectManifest& manifest, const ProjectPackage& package) {
  return {manifest.id.string(),        manifest.source.title,
          package.rootPath.string(),   manifest.duration.cliMilliseconds(),
          manifest.webcam.has_value(), manifest.updatedAt};
}

std::vector<CLISegmentDescription> ProjectInspector::segmentDescriptions(const TimelineMapper& mapper) {
  std::vector<CLISegmentDescription> segments;
  segments.reserve(mapper.projections().size());
  for (const auto& projection : mapper.projections()) {
    const auto& source = projection.segment.sourceRange;
    segments.push_back({projection.segment.id.string(), source.start.cliMilliseconds(), source.end().cliMilliseconds(),
                        projection.sequenceRange.start.cliMilliseconds(),
                        projection.sequenceRange.end().cliMilliseconds(),
                        projection.segment.playbackRate.multiplier()});
  }
  return segments;
}

std::vector<ZoomSegment> ProjectInspector::zoomsByStart(const EditTimeline& timeline) {
  std::vector<ZoomSegment> zooms = timeline.zooms;
  std::stable_sort(zooms.begin(), zooms.end(),
                   [](const ZoomSegment& a, const ZoomSegment& b) { return a.startTime < b.startTime; });
  return zooms;
}

std::vector<CLIZoomDescription> ProjectInspector::zoomDescriptions(const EditTimeline& timeline) {
  std::vector<CLIZoomDescription> descriptions;
  std::int64_t index = 0;
  for (const auto& zoom : zoomsByStart(timeline))
    descriptions.push_back({index++, zoom.id.string(), zoom.startTime.cliMilliseconds(), zoom.endTime.cliMilliseconds(),
                            zoom.focusPoint.x, zoom.focusPoint.y, zoom.scale});
  return descriptions;
}

CLITimelineSummary ProjectInspector::timelineSummary(const EditTimeline& timeline, ProjectTime sourceDuration) {
  TimelineMapper mapper(timeline, sourceDuration);
  CLITimelineSummary summary;
  summary.sequenceDurationMilliseconds = mapper.sequenceDuration().cliMilliseconds();
  summary.segmentCount = static_cast<std::int64_t>(timeline.segments.size());
  summary.speedSegmentCount = std::count_if(timeline.segments.begin(), timeline.segments.end(),
                                            [](const TimelineSegment& s) { return !s.playbackRate.isNormal(); });
  summary.zoomCount = static_cast<std::int64_t>(timeline.zooms.size());
  summary.canvas = timeline.canvas;
  summary.cursor = timeline.cursor;
  summary.webcam = timeline.webcamOverlay;
  summary.audio = timeline.audioMix;
  return summary;
}

CLICaptionCueDescription ProjectInspector::cueDescription(const CaptionCue& cue, const TimelineMapper& mapper) {
  CLICaptionCueDescription description;
  description.id = cue.id.string();
  description.sourceStartMilliseconds = cue.start.cliMilliseconds();
  description.sourceEndMilliseconds = cue.end.cliMilliseconds();
  for (const auto& range : mapper.projectedRanges(ProjectTimeRange::fromStartEnd(cue.start, cue.end)))
    description.sequenceRanges.push_back(CLIRange::from(range));
  description.text = cue.text;
  for (const auto& word : cue.words)
    description.words.push_back({word.start.cliMilliseconds(), word.end.cliMilliseconds(), word.text});
  for (const auto& highlight : cue.highlights) description.highlights.push_back({highlight.text, highlight.occurrence});
  return description;
}

CLIProjectDescription ProjectInspector::describe(const ProjectSnapshot& snapshot, const std::string& digest) {
  const ProjectManifest& manifest = snapshot.manifest;
  const EditTimeline& timeline = snapshot.timeline;
  TimelineMapper mapper(timeline, manifest.duration);

  CLIProjectDescription description;
  description.id = manifest.id.string();
  description.packagePath = snapshot.packagePath.string();
  description.manifestVersion = manifest.version;
  description.timelineSchema = timeline.schemaVersion;
  description.state = std::string(nameOf(manifest.state));
  description.sourceWidth = manifest.encodedPixelSize.width;
  description.sourceHeight = manifest.encodedPixelSize.height;
  description.sourceDurationMilliseconds = manifest.duration.cliMilliseconds();
  description.sequenceDurationMilliseconds = mapper.sequenceDuration().cliMilliseconds();
  description.segments = segmentDescriptions(mapper);
  description.zooms = zoomDescriptions(timeline);
  description.canvas = timeline.canvas;
  description.cursor = timeline.cursor;
  description.audio = timeline.audioMix;
  description.webcam = timeline.webcamOverlay;
  auto hasTrack = [&](MediaTrackKind kind) {
    return std::any_of(manifest.media.tracks.begin(), manifest.media.tracks.end(),
                       [kind](const MediaTrack& t) { return t.kind == kind; });
  };
  description.tracks = {{"screen", hasTrack(MediaTrackKind::screen)},
                        {"webcam", manifest.webcam.has_value()},
                        {"systemAudio", hasTrack(MediaTrackKind::systemAudio)},
                        {"microphone", hasTrack(MediaTrackKind::microphone)}};
  // A click is a button press, whichever button; releases and moves are not clicks.
  for (const auto& event : snapshot.mouseEvents)
    if (event.phase == MousePhase::down) description.clickMilliseconds.push_back(event.time.cliMilliseconds());
  if (snapshot.captions) {
    description.captionCueCount = static_cast<std::int64_t>(snapshot.captions->cues.size());
    description.captionLanguage = snapshot.captions->language;
  }
  description.timelineDigest = digest;
  return description;
}

std::vector<CLISpanDescription> ProjectInspector::spanDescriptions(const std::vector<ProjectTimeRange>& spans,
                                                                   const TimelineMapper& mapper) {
  std::vector<CLISpanDescription> descriptions;
  descriptions.reserve(spans.size());
  for (const auto& span : spans) {
    CLISpanDescription description{span.start.cliMilliseconds(), span.end().cliMilliseconds(), {}};
    for (const auto& range : mapper.projectedRanges(span)) description.sequenceRanges.push_back(CLIRange::from(range));
    descriptions.push_back(std::move(description));
  }
  return descriptions;
}

}  // namespace vumo
