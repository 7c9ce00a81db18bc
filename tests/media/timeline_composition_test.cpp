#include "media/timeline_composition.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <thread>

#include "media/media_errors.h"
#include "media_fixtures.h"
#include "shared/error.h"
#include "shared/files.h"

namespace vumo {
namespace {

using namespace vumo::testing;
using Case = TimelineCompositionError::Case;

ResolvedTrack trackOver(ProjectTime start, ProjectTime end, std::int64_t streamIndex = 0) {
  return {streamIndex, span(start, end)};
}

CompositionPiece piece(ProjectTimeRange source, ProjectTime sequenceStart, ProjectTime sequenceDuration,
                       std::int32_t permille) {
  return {source, sequenceStart, sequenceDuration, permille};
}

// 0–1 s at normal speed, 2–3 s at 0.5× (two seconds in the sequence), 4–6 s at 2× (one second).
TimelineMapper cutAndSpeedMapper() {
  return TimelineMapper(
      timelineOf({clip(ms(0), ms(1000)), clip(ms(2000), ms(3000), 500), clip(ms(4000), ms(6000), 2000)}), ms(6000));
}

TEST(TimelineCompositionPlan, PlacesEveryTrackByTheIntegerRules) {
  TimelineMapper mapper = cutAndSpeedMapper();
  ASSERT_EQ(mapper.sequenceDuration(), ms(4000));
  ResolvedTimelineTracks tracks;
  tracks.screen = trackOver(ms(0), ms(6000), 0);
  tracks.webcam = trackOver(ms(0), ms(2500), 1);         // the camera stops early: a hole
  tracks.systemAudio = trackOver(ms(500), ms(6000), 2);  // starts late
  tracks.microphone = trackOver(ms(0), ms(6000), 3);

  TimelineCompositionPlan plan = TimelineCompositionBuilder::build(mapper, tracks, AudioMixEdit{});

  const std::vector<CompositionPiece> whole = {
      piece(rangeMs(0, 1000), ms(0), ms(1000), 1000),
      piece(rangeMs(2000, 3000), ms(1000), ms(2000), 500),
      piece(rangeMs(4000, 6000), ms(3000), ms(1000), 2000),
  };
  EXPECT_EQ(plan.screen, (CompositionTrack{CompositionTrackRole::screen, 0, whole}));
  ASSERT_TRUE(plan.webcam);
  EXPECT_EQ(plan.webcam->pieces, (std::vector<CompositionPiece>{
                                     piece(rangeMs(0, 1000), ms(0), ms(1000), 1000),
                                     piece(rangeMs(2000, 2500), ms(1000), ms(1000), 500),
                                 }));
  ASSERT_EQ(plan.audioTracks.size(), 2u);
  EXPECT_EQ(plan.audioTracks[0].role, CompositionTrackRole::systemAudio);
  EXPECT_EQ(plan.audioTracks[0].streamIndex, 2);
  EXPECT_EQ(plan.audioTracks[0].pieces[0], piece(rangeMs(500, 1000), ms(500), ms(500), 1000));
  EXPECT_EQ(plan.audioTracks[1].role, CompositionTrackRole::microphone);
  EXPECT_EQ(plan.audioTracks[1].pieces, whole);
  EXPECT_EQ(plan.sequenceDuration, ms(4000));
}

TEST(TimelineCompositionPlan, RoundsPieceStartsDownAndEndsUp) {
  // 3 s at 1.5× lasts 2 s. A track from 1 ns to 1 ns before the end: 1 ns of source is less than
  // a sequence nanosecond, so the start rounds down to 0; 2,999,999,999 ns become 1,999,999,999.33
  // and round up to the clip's end.
  TimelineMapper mapper(timelineOf({clip(ms(0), ms(3000), 1500)}), ms(3000));
  auto pieces = TimelineCompositionBuilder::insertSegments(rangeNs(1, 2'999'999'999), mapper);
  EXPECT_EQ(pieces, (std::vector<CompositionPiece>{piece(rangeNs(1, 2'999'999'999), ms(0), ms(2000), 1500)}));

  // A track wholly inside the cut leaves the clip out.
  TimelineMapper cut(timelineOf({clip(ms(0), ms(1000)), clip(ms(2000), ms(3000))}), ms(3000));
  EXPECT_EQ(TimelineCompositionBuilder::insertSegments(rangeMs(1000, 2000), cut), std::vector<CompositionPiece>{});
}

TEST(TimelineCompositionPlan, ToleratesOneNanosecondOffTheMapperButNotTwo) {
  TimelineMapper mapper(timelineOf({clip(ms(0), ms(1000))}), ms(1000));
  struct Row {
    std::int64_t screenEnd;
    bool accepted;
  };
  for (Row row : {Row{1'000'000'000, true}, Row{999'999'999, true}, Row{999'999'998, false}}) {
    ResolvedTimelineTracks tracks;
    tracks.screen = trackOver(ns(0), ns(row.screenEnd));
    if (row.accepted)
      EXPECT_NO_THROW(TimelineCompositionBuilder::build(mapper, tracks, AudioMixEdit{})) << row.screenEnd;
    else
      EXPECT_ERROR_CASE(TimelineCompositionBuilder::build(mapper, tracks, AudioMixEdit{}), TimelineCompositionError,
                        Case::durationMismatch);
  }
  // A longer audio track makes up for a short screen: the plan is as long as its longest track.
  ResolvedTimelineTracks tracks;
  tracks.screen = trackOver(ms(0), ms(500));
  tracks.microphone = trackOver(ms(0), ms(1000));
  EXPECT_EQ(TimelineCompositionBuilder::build(mapper, tracks, AudioMixEdit{}).sequenceDuration, ms(1000));
}

TEST(TimelineCompositionPlan, StopsAtTheNextSegmentWhenCancelled) {
  std::stop_source stop;
  stop.request_stop();
  ResolvedTimelineTracks tracks;
  tracks.screen = trackOver(ms(0), ms(6000));
  EXPECT_THROW(TimelineCompositionBuilder::build(cutAndSpeedMapper(), tracks, AudioMixEdit{}, stop.get_token()),
               CancelledError);
}

TEST(TimelineCompositionPlan, AudioMixVolumes) {
  struct Row {
    AudioTrackEdit edit;
    double volume;
  };
  const Row rows[] = {
      {{false, 0}, 1.0},
      {{true, 0}, 0.0},
      {{true, 12}, 0.0},
      {{false, 6}, std::pow(10.0, 6.0 / 20.0)},
      {{false, 12}, std::pow(10.0, 12.0 / 20.0)},
      {{false, 30}, std::pow(10.0, 12.0 / 20.0)},  // capped at +12 dB
      {{false, -20}, 0.1},
      {{false, -59.5}, std::pow(10.0, -59.5 / 20.0)},
      {{false, -60}, 0.001},
      {{false, -90}, 0.001},
  };
  for (const Row& row : rows) {
    AudioMixEdit settings;
    settings.microphone = row.edit;
    auto mix = TimelineCompositionBuilder::makeAudioMix(
        {{MediaTrackKind::systemAudio, {2, rangeMs(0, 1)}}, {MediaTrackKind::microphone, {3, rangeMs(0, 1)}}},
        settings);
    ASSERT_TRUE(mix);
    ASSERT_EQ(mix->size(), 2u);
    EXPECT_EQ((*mix)[0], (AudioMixInput{MediaTrackKind::systemAudio, 2, 1.0}));
    EXPECT_EQ((*mix)[1].kind, MediaTrackKind::microphone);
    EXPECT_EQ((*mix)[1].streamIndex, 3);
    EXPECT_NEAR((*mix)[1].volume, row.volume, 1e-12) << row.edit.gainDecibels << " muted " << row.edit.isMuted;
  }
  AudioMixEdit systemSettings;
  systemSettings.systemAudio = {false, -20};
  auto system =
      TimelineCompositionBuilder::makeAudioMix({{MediaTrackKind::systemAudio, {1, rangeMs(0, 1)}}}, systemSettings);
  ASSERT_TRUE(system);
  EXPECT_NEAR(system->at(0).volume, 0.1, 1e-12);

  EXPECT_EQ(TimelineCompositionBuilder::makeAudioMix({}, AudioMixEdit{}), std::nullopt);
  ResolvedTimelineTracks silent;
  silent.screen = trackOver(ms(0), ms(6000));
  TimelineCompositionPlan plan = TimelineCompositionBuilder::build(cutAndSpeedMapper(), silent, AudioMixEdit{});
  EXPECT_TRUE(plan.audioTracks.empty());
  EXPECT_FALSE(plan.audioMix);
}

// ---------------------------------------------------------------------------------------------
// With a real movie

class PackageMovie : public ::testing::Test {
 protected:
  // Stream 0: one second of video; stream 1: one second of 48 kHz PCM.
  ProjectSnapshot videoAndAudio(std::vector<MediaTrack> tracks, std::optional<std::int64_t> webcam = {}) {
    PackageFixture fixture;
    fixture.inputs = lavfiInput(smallVideoGraph(1));
    auto audio = lavfiInput(exactAudioGraph({"1000"}, 1));
    fixture.inputs.insert(fixture.inputs.end(), audio.begin(), audio.end());
    fixture.outputOptions = {"-map", "0:v", "-map", "1:a", "-c:v", "mjpeg", "-c:a", "pcm_s16le"};
    fixture.tracks = std::move(tracks);
    fixture.webcamTrackIndex = webcam;
    return makePackage(folder.path(), fixture);
  }
  TemporaryDirectory folder;
};

TEST_F(PackageMovie, ResolvesTracksAndTheirTimeRanges) {
  ProjectSnapshot snapshot = videoAndAudio({{MediaTrackKind::screen, 0}, {MediaTrackKind::microphone, 1}});
  MediaContainer container = MediaContainer::open(snapshot);
  ResolvedTimelineTracks tracks = TimelineTrackResolver::resolve(container, snapshot.manifest);
  EXPECT_EQ(tracks.screen.streamIndex, 0);
  EXPECT_EQ(tracks.screen.timeRange, rangeMs(0, 1000));
  EXPECT_FALSE(tracks.webcam);
  EXPECT_FALSE(tracks.systemAudio);
  ASSERT_TRUE(tracks.microphone);
  EXPECT_EQ(*tracks.microphone, (ResolvedTrack{1, rangeMs(0, 1000)}));
  ASSERT_EQ(tracks.audioByKind().size(), 1u);
  EXPECT_EQ(tracks.audioByKind()[0].kind, MediaTrackKind::microphone);

  TimelineCompositionPlan plan = TimelineCompositionBuilder::build(snapshot);
  EXPECT_EQ(plan.sequenceDuration, ms(1000));
  EXPECT_EQ(plan.screen.pieces, (std::vector<CompositionPiece>{piece(rangeMs(0, 1000), ms(0), ms(1000), 1000)}));
  ASSERT_EQ(plan.audioTracks.size(), 1u);
  EXPECT_EQ(plan.audioTracks[0].streamIndex, 1);
}

TEST_F(PackageMovie, RefusesManifestsThatDoNotMatchTheMovie) {
  ProjectSnapshot snapshot = videoAndAudio({{MediaTrackKind::screen, 0}});
  MediaContainer container = MediaContainer::open(snapshot);
  struct Row {
    std::vector<MediaTrack> tracks;
    std::optional<std::int64_t> webcam;
    Case expected;
    std::string text;
  };
  const std::vector<Row> rows = {
      {{{MediaTrackKind::microphone, 1}},
       {},
       Case::missingScreenDescription,
       "The manifest has no screen track description."},
      {{{MediaTrackKind::screen, 2}},
       {},
       Case::missingTrack,
       "Project media is missing track 2 specified in the manifest."},
      {{{MediaTrackKind::screen, 1}},
       {},
       Case::mediaTypeMismatch,
       "Project media track 1 has the wrong type; expected video"},
      {{{MediaTrackKind::screen, 0}, {MediaTrackKind::systemAudio, 0}},
       {},
       Case::mediaTypeMismatch,
       "Project media track 0 has the wrong type; expected audio"},
      {{{MediaTrackKind::screen, 0}},
       7,
       Case::missingTrack,
       "Project media is missing track 7 specified in the manifest."},
      {{{MediaTrackKind::screen, 0}},
       1,
       Case::mediaTypeMismatch,
       "Project media track 1 has the wrong type; expected video"},
      {{{MediaTrackKind::screen, 0}, {MediaTrackKind::microphone, -1}},
       {},
       Case::missingTrack,
       "Project media is missing track -1 specified in the manifest."},
  };
  for (const Row& row : rows) {
    ProjectManifest manifest = snapshot.manifest;
    manifest.media.tracks = row.tracks;
    if (row.webcam) manifest.webcam = WebcamMediaInfo{*row.webcam, "camera", "Camera", {16, 16}, 5};
    try {
      TimelineTrackResolver::resolve(container, manifest);
      ADD_FAILURE() << "resolved: " << row.text;
    } catch (const TimelineCompositionError& error) {
      EXPECT_EQ(error.kind(), row.expected);
      EXPECT_EQ(error.message(), row.text);
      EXPECT_EQ(error.table(), "Media");
      EXPECT_EQ(error.classification().code, "execution");
    }
  }
}

TEST_F(PackageMovie, OpensOnlyRegularFilesAndNeverWaitsOnAFifo) {
  ProjectSnapshot snapshot = snapshotWithoutMovie(folder.path(), {{MediaTrackKind::screen, 0}});
  const std::filesystem::path movie = MediaContainer::moviePath(snapshot);
  EXPECT_THROW(MediaContainer::open(snapshot), FileError);  // missing

  ASSERT_EQ(::mkfifo(movie.c_str(), 0600), 0);
  auto started = std::chrono::steady_clock::now();
  EXPECT_ERROR_CASE(MediaContainer::open(snapshot), MediaContainerError, MediaContainerError::Case::notRegularFile);
  EXPECT_ERROR_CASE(TimelineCompositionBuilder::build(snapshot), MediaContainerError,
                    MediaContainerError::Case::notRegularFile);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
  std::filesystem::remove(movie);

  std::filesystem::create_directory(movie);
  EXPECT_ERROR_CASE(MediaContainer::open(snapshot), MediaContainerError, MediaContainerError::Case::notRegularFile);
  std::filesystem::remove(movie);

  ProjectSnapshot real = videoAndAudio({{MediaTrackKind::screen, 0}});  // writes the same path
  std::filesystem::rename(movie, folder.path() / "elsewhere.mov");
  std::filesystem::create_symlink(folder.path() / "elsewhere.mov", movie);
  EXPECT_ERROR_CASE(MediaContainer::open(real), MediaContainerError, MediaContainerError::Case::notRegularFile);
  std::filesystem::remove(movie);

  writeFileAtomically(movie, "not a movie at all");
  EXPECT_ERROR_CASE(MediaContainer::open(real), MediaContainerError, MediaContainerError::Case::cannotOpen);

  std::stop_source stop;
  stop.request_stop();
  std::filesystem::rename(folder.path() / "elsewhere.mov", movie);
  EXPECT_NO_THROW(MediaContainer::open(real));
  EXPECT_THROW(MediaContainer::open(real, stop.get_token()), CancelledError);
}

}  // namespace
}  // namespace vumo
