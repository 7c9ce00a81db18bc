#include "media/sequence_audio_reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

#include "media_fixtures.h"
#include "shared/error.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// The streams of the shared movie.
constexpr std::int64_t screenStream = 0;
constexpr std::int64_t codedStream = 1;     // 4 s; sample n is (n mod 32000, floor(n / 32000) × 1000)
constexpr std::int64_t constantStream = 2;  // 2 s; 8000 on both channels
constexpr std::int64_t sineStream = 3;      // 4 s; 440 Hz at half scale on both channels
constexpr std::int64_t quietStream = 4;     // 4 s; 2000 left, -2000 right
constexpr std::int64_t monoStream = 5;      // 4 s; 8000 on its one channel

constexpr int rate = 48'000;

// Every output frame of the coded stream names the source sample it came from.
std::int64_t sourceSampleOf(float left, float right) {
  const auto l = static_cast<std::int64_t>(std::lround(left * 32768.0F));
  const auto r = static_cast<std::int64_t>(std::lround(right * 32768.0F));
  return r / 1000 * 32000 + l;
}

std::vector<std::string> audioInput(const std::vector<std::string>& channels, double seconds) {
  return lavfiInput(exactAudioGraph(channels, seconds));
}

class SequenceAudio : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = new TemporaryDirectory();
    PackageFixture fixture;
    fixture.inputs = lavfiInput(smallVideoGraph(4));
    for (const auto& input : {audioInput({"mod(n,32000)", "floor(n/32000)*1000"}, 4), audioInput({"8000", "8000"}, 2),
                              audioInput({"16384*sin(2*PI*440*n/48000)", "16384*sin(2*PI*440*n/48000)"}, 4),
                              audioInput({"2000", "-2000"}, 4), audioInput({"8000"}, 4)})
      fixture.inputs.insert(fixture.inputs.end(), input.begin(), input.end());
    fixture.outputOptions = {"-map", "0:v", "-map", "1:a", "-map", "2:a",   "-map", "3:a",
                             "-map", "4:a", "-map", "5:a", "-c:v", "mjpeg", "-c:a", "pcm_s16le"};
    fixture.tracks = {{MediaTrackKind::screen, screenStream},
                      {MediaTrackKind::systemAudio, codedStream},
                      {MediaTrackKind::microphone, constantStream}};
    fixture.duration = ms(4000);
    snapshot = new ProjectSnapshot(makePackage(folder->path(), fixture));
  }
  static void TearDownTestSuite() {
    delete snapshot;
    delete folder;
  }

  static MediaContainer open(std::stop_token stop = {}) { return MediaContainer::open(*snapshot, std::move(stop)); }

  // A plan of the given audio tracks (volume 1 unless `mix` says otherwise) lasting `duration`.
  static TimelineCompositionPlan planOf(std::vector<CompositionTrack> tracks, ProjectTime duration,
                                        std::optional<std::vector<AudioMixInput>> mix = std::nullopt) {
    TimelineCompositionPlan plan{TimelineMapper(timelineOf({clip(ms(0), ms(4000))}), ms(4000)), {}, {}, {}, {}, {}};
    plan.audioTracks = std::move(tracks);
    plan.audioMix = std::move(mix);
    plan.sequenceDuration = duration;
    return plan;
  }

  static std::vector<float> readAll(SequenceAudioReader& reader, std::int64_t chunkFrames = 4410) {
    std::vector<float> all;
    std::vector<float> chunk(static_cast<std::size_t>(chunkFrames * reader.format().channelCount));
    while (std::int64_t frames = reader.read(chunk)) {
      all.insert(all.end(), chunk.begin(), chunk.begin() + frames * reader.format().channelCount);
    }
    return all;
  }

  static TemporaryDirectory* folder;
  static ProjectSnapshot* snapshot;
};

TemporaryDirectory* SequenceAudio::folder = nullptr;
ProjectSnapshot* SequenceAudio::snapshot = nullptr;

CompositionPiece piece(ProjectTimeRange source, ProjectTime sequenceStart, ProjectTime sequenceDuration,
                       std::int32_t permille = 1000) {
  return {source, sequenceStart, sequenceDuration, permille};
}

CompositionTrack audioTrack(std::int64_t stream, std::vector<CompositionPiece> pieces) {
  return {CompositionTrackRole::systemAudio, stream, std::move(pieces)};
}

// Output frames [from, to) carry source samples from `firstSource` on, or silence (-1).
struct Stretch {
  std::int64_t from;
  std::int64_t to;
  std::int64_t firstSource;
};

TEST_F(SequenceAudio, DeliversTheRetainedSamplesInOrderAndNothingElse) {
  struct Row {
    const char* name;
    std::vector<CompositionPiece> pieces;
    ProjectTime duration;
    std::vector<Stretch> expected;
  };
  const std::vector<Row> rows = {
      {"a cut on whole seconds",
       {piece(rangeMs(0, 1000), ms(0), ms(1000)), piece(rangeMs(2000, 3000), ms(1000), ms(1000))},
       ms(2000),
       {{0, 48'000, 0}, {48'000, 96'000, 96'000}}},
      // 700 ms = 33,600 frames; 1,234,567,891 ns is source sample 59,259.26, so 59,260 is the first
      // kept; 1,465,432,109 ns end at frame 70,340.74.
      {"a cut between samples",
       {piece(rangeMs(0, 700), ms(0), ms(700)), piece(rangeNs(1'234'567'891, 2'000'000'000), ms(700), ns(765'432'109))},
       ns(1'465'432'109),
       {{0, 33'600, 0}, {33'600, 70'340, 59'260}}},
      {"a track that starts late",
       {piece(rangeMs(500, 1000), ms(500), ms(500))},
       ms(1000),
       {{0, 24'000, -1}, {24'000, 48'000, 24'000}}},
      {"a track that ends early",
       {piece(rangeMs(3000, 3500), ms(0), ms(500))},
       ms(1000),
       {{0, 24'000, 144'000}, {24'000, 48'000, -1}}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SequenceAudioReader reader(open(), planOf({audioTrack(codedStream, row.pieces)}, row.duration));
    const std::int64_t expectedFrames = row.expected.back().to;
    EXPECT_EQ(reader.frameCount(), expectedFrames);
    std::vector<float> all = readAll(reader);
    ASSERT_EQ(static_cast<std::int64_t>(all.size()), expectedFrames * 2);
    EXPECT_EQ(reader.position(), expectedFrames);
    for (const Stretch& stretch : row.expected) {
      std::int64_t wrong = 0;
      for (std::int64_t k = stretch.from; k < stretch.to; ++k) {
        const float left = all[static_cast<std::size_t>(2 * k)];
        const float right = all[static_cast<std::size_t>(2 * k + 1)];
        const bool good = stretch.firstSource < 0
                              ? (left == 0.0F && right == 0.0F)
                              : sourceSampleOf(left, right) == stretch.firstSource + k - stretch.from;
        if (!good && wrong++ == 0)
          ADD_FAILURE() << "frame " << k << " holds source sample " << sourceSampleOf(left, right);
      }
      EXPECT_EQ(wrong, 0) << "frames " << stretch.from << "..." << stretch.to;
    }
  }
}

TEST_F(SequenceAudio, SeekLandsOnTheFrameOfTheSequenceTime) {
  const TimelineCompositionPlan plan =
      planOf({audioTrack(codedStream,
                         {piece(rangeMs(0, 1000), ms(0), ms(1000)), piece(rangeMs(2000, 3000), ms(1000), ms(1000))})},
             ms(2000));
  SequenceAudioReader reader(open(), plan);
  struct Row {
    ProjectTime time;
    std::int64_t frame;
    std::int64_t firstSource;  // -1: nothing left to read
  };
  const Row rows[] = {
      {ms(1500), 72'000, 120'000}, {ms(0), 0, 0},          {ns(999'999'999), 47'999, 47'999},
      {ms(1000), 48'000, 96'000},  {ns(20'834), 1, 1},     {ms(-5), 0, 0},
      {ms(2000), 96'000, -1},      {ms(9000), 96'000, -1},
  };
  std::vector<float> chunk(2 * 100);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.time.nanoseconds);
    reader.seek(row.time);
    EXPECT_EQ(reader.position(), row.frame);
    const std::int64_t frames = reader.read(chunk);
    if (row.firstSource < 0) {
      EXPECT_EQ(frames, 0);
      continue;
    }
    ASSERT_EQ(frames, 100);
    for (std::int64_t k = 0; k < frames; ++k) {
      const std::int64_t frame = row.frame + k;
      // The read may run over the cut at frame 48,000.
      const std::int64_t expected = frame < 48'000 ? frame : frame + 48'000;
      ASSERT_EQ(sourceSampleOf(chunk[static_cast<std::size_t>(2 * k)], chunk[static_cast<std::size_t>(2 * k + 1)]),
                expected)
          << "frame " << frame;
    }
  }
}

// Zero crossings of the left channel over [from, to), as a frequency.
double frequencyOf(const std::vector<float>& frames, std::int64_t from, std::int64_t to) {
  std::int64_t crossings = 0;
  for (std::int64_t k = from + 1; k < to; ++k) {
    const float before = frames[static_cast<std::size_t>(2 * (k - 1))];
    const float after = frames[static_cast<std::size_t>(2 * k)];
    if ((before < 0) != (after < 0)) ++crossings;
  }
  return static_cast<double>(crossings) / 2.0 / (static_cast<double>(to - from) / rate);
}

double rmsOf(const std::vector<float>& frames, std::int64_t from, std::int64_t to) {
  double sum = 0;
  for (std::int64_t k = from; k < to; ++k) sum += std::pow(frames[static_cast<std::size_t>(2 * k)], 2);
  return std::sqrt(sum / static_cast<double>(to - from));
}

TEST_F(SequenceAudio, ChangedSpeedsLastTheirSequenceLengthAndKeepThePitch) {
  // 2 s at 2× last 1 s, 1 s at 0.5× lasts 2 s, then 1 s at normal speed.
  const TimelineCompositionPlan plan =
      planOf({audioTrack(sineStream, {piece(rangeMs(0, 2000), ms(0), ms(1000), 2000),
                                      piece(rangeMs(2000, 3000), ms(1000), ms(2000), 500),
                                      piece(rangeMs(3000, 4000), ms(3000), ms(1000))})},
             ms(4000));
  SequenceAudioReader reader(open(), plan);
  std::vector<float> all = readAll(reader);
  ASSERT_EQ(all.size(), 2u * 192'000);
  struct Row {
    const char* name;
    std::int64_t from;
    std::int64_t to;
  };
  // Away from the joins, where a stretcher fades in and out.
  for (const Row& row : {Row{"2×", 4'800, 43'200}, Row{"0.5×", 52'800, 139'200}, Row{"1×", 148'800, 187'200}}) {
    SCOPED_TRACE(row.name);
    EXPECT_NEAR(frequencyOf(all, row.from, row.to), 440.0, 440.0 * 0.03);
    // Half scale: an RMS of 0.354 where the tone plays on.
    EXPECT_NEAR(rmsOf(all, row.from, row.to), 0.354, 0.06);
  }
  // The end of the slowed piece is its sound, not a gap of padding.
  EXPECT_GT(rmsOf(all, 139'200, 144'000), 0.2);
}

TEST_F(SequenceAudio, ScalesEachTrackByItsMixVolumeAndSumsThem) {
  const std::vector<CompositionPiece> firstSecond = {piece(rangeMs(0, 1000), ms(0), ms(1000))};
  auto mixOf = [](AudioTrackEdit constant, AudioTrackEdit quiet) {
    // The mix's own rule for gains: the constant track as system audio, the quiet one as microphone.
    AudioMixEdit edit;
    edit.systemAudio = constant;
    edit.microphone = quiet;
    return TimelineCompositionBuilder::makeAudioMix({{MediaTrackKind::systemAudio, {constantStream, rangeMs(0, 2000)}},
                                                     {MediaTrackKind::microphone, {quietStream, rangeMs(0, 4000)}}},
                                                    edit);
  };
  const AudioTrackEdit muted{true, 0};
  struct Row {
    const char* name;
    AudioTrackEdit constant;
    AudioTrackEdit quiet;
    double left;
    double right;
  };
  const double halfOf8000 = 8000 * std::pow(10.0, -6.0 / 20);
  const Row rows[] = {
      {"constant alone", {}, muted, 8000, 8000},
      {"both muted", muted, muted, 0, 0},
      {"-6 dB halves the level", {false, -6}, muted, halfOf8000, halfOf8000},
      {"two tracks mix", {}, {}, 10'000, 6'000},
      {"the sum is clamped", {false, 12}, {}, 32'768, 8000 * std::pow(10.0, 12.0 / 20) - 2000},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    SequenceAudioReader reader(
        open(), planOf({audioTrack(constantStream, firstSecond), audioTrack(quietStream, firstSecond)}, ms(1000),
                       mixOf(row.constant, row.quiet)));
    std::vector<float> all = readAll(reader);
    ASSERT_EQ(all.size(), 2u * 48'000);
    for (std::size_t k : {0u, 24'000u, 47'999u}) {
      EXPECT_NEAR(all[2 * k] * 32768.0, row.left, 0.5) << "frame " << k;
      EXPECT_NEAR(all[2 * k + 1] * 32768.0, row.right, 0.5) << "frame " << k;
    }
  }
  EXPECT_NEAR(halfOf8000 / 8000, 0.5, 0.005);
}

TEST_F(SequenceAudio, CarriesOutTheBuildersPlanForAPackage) {
  // Clips 0–1 s and 1.5–2.5 s: the 2 s microphone covers the first clip and half the second, so it
  // has a hole from 1.5 s on while system audio plays to the end.
  ProjectSnapshot edited = *snapshot;
  edited.timeline = timelineOf({clip(ms(0), ms(1000)), clip(ms(1500), ms(2500))});
  // Quiet enough that the sum stays below full scale.
  edited.timeline.audioMix.microphone.gainDecibels = -30;
  const TimelineCompositionPlan plan = TimelineCompositionBuilder::build(edited);
  ASSERT_EQ(plan.audioTracks.size(), 2u);

  SequenceAudioReader reader(MediaContainer::open(edited), plan);
  std::vector<float> all = readAll(reader, 1000);
  ASSERT_EQ(all.size(), 2u * 96'000);
  const float microphone = static_cast<float>(8000 * std::pow(10.0, -30.0 / 20) / 32768);
  std::int64_t wrong = 0;
  for (std::int64_t k = 0; k < 96'000; ++k) {
    const std::int64_t source = k < 48'000 ? k : k + 24'000;
    const float added = source < 96'000 ? microphone : 0.0F;
    const float left = all[static_cast<std::size_t>(2 * k)] - added;
    const float right = all[static_cast<std::size_t>(2 * k + 1)] - added;
    if (sourceSampleOf(left, right) != source && wrong++ == 0) ADD_FAILURE() << "frame " << k;
  }
  EXPECT_EQ(wrong, 0);
}

TEST_F(SequenceAudio, ResamplesToTheOutputFormat) {
  const TimelineCompositionPlan plan =
      planOf({audioTrack(constantStream,
                         {piece(rangeMs(0, 700), ms(0), ms(700)), piece(rangeMs(1000, 1300), ms(700), ms(300), 1500)})},
             ms(900));
  struct Row {
    AudioOutputFormat format;
    std::int64_t frames;
    double level;
  };
  // 900 ms at 44.1 kHz is 39,690 frames; at 22.05 kHz 19,845. Stereo folds into mono at -3 dB per
  // channel, libswresample's default.
  for (const Row& row : {Row{{44'100, 2}, 39'690, 8000}, Row{{22'050, 1}, 19'845, 8000 * 2 * M_SQRT1_2},
                         Row{{48'000, 6}, 43'200, 8000}}) {
    SCOPED_TRACE(row.format.sampleRate);
    SequenceAudioReader reader(open(), plan, row.format);
    EXPECT_EQ(reader.frameCount(), row.frames);
    std::vector<float> all = readAll(reader);
    ASSERT_EQ(static_cast<std::int64_t>(all.size()), row.frames * row.format.channelCount);
    // Well inside the first piece the level is the source's on the front channels.
    const std::size_t middle = static_cast<std::size_t>(row.frames / 4 * row.format.channelCount);
    EXPECT_NEAR(all[middle] * 32768.0, row.level, 40);
  }
}

TEST_F(SequenceAudio, AMonoSourceIsHeardAtItsLevelOnEveryChannel) {
  const TimelineCompositionPlan plan =
      planOf({audioTrack(monoStream, {piece(rangeMs(0, 1000), ms(0), ms(1000))})}, ms(1000));
  for (int channels : {1, 2, 6}) {
    SCOPED_TRACE(channels);
    SequenceAudioReader reader(open(), plan, {48'000, channels});
    std::vector<float> all = readAll(reader);
    ASSERT_EQ(all.size(), static_cast<std::size_t>(48'000 * channels));
    for (int c = 0; c < channels; ++c) EXPECT_EQ(all[static_cast<std::size_t>(24'000 * channels + c)] * 32768, 8000);
  }
}

TEST_F(SequenceAudio, APlanWithoutAudioIsSilenceOfItsLength) {
  // No audio tracks at all: the sequence is silence of its full length.
  SequenceAudioReader silent(open(), planOf({}, ms(250)), {8'000, 1});
  std::vector<float> all = readAll(silent);
  ASSERT_EQ(all.size(), 2'000u);
  for (float sample : all) ASSERT_EQ(sample, 0.0F);
}

TEST_F(SequenceAudio, StopsWhenCancelled) {
  std::stop_source stop;
  SequenceAudioReader reader(open(stop.get_token()),
                             planOf({audioTrack(codedStream, {piece(rangeMs(0, 4000), ms(0), ms(4000))})}, ms(4000)));
  std::vector<float> chunk(2 * 1000);
  EXPECT_EQ(reader.read(chunk), 1000);
  stop.request_stop();
  EXPECT_THROW(reader.read(chunk), CancelledError);
}

TEST_F(SequenceAudio, RefusesBadStreamsAndFormats) {
  const std::vector<CompositionPiece> pieces = {piece(rangeMs(0, 1000), ms(0), ms(1000))};
  for (std::int64_t stream : {screenStream, std::int64_t{9}}) {
    try {
      SequenceAudioReader reader(open(), planOf({audioTrack(stream, pieces)}, ms(1000)));
      ADD_FAILURE() << "read stream " << stream;
    } catch (const SequenceReaderError& error) {
      EXPECT_EQ(error.kind(), SequenceReaderError::Case::unsupportedStream);
      EXPECT_EQ(error.localizationKey(), "media.reader.stream");
      EXPECT_EQ(error.table(), "Media");
    }
  }
  for (AudioOutputFormat format : {AudioOutputFormat{0, 2}, AudioOutputFormat{48'000, 0}, AudioOutputFormat{48'000, 9}})
    EXPECT_THROW(SequenceAudioReader(open(), planOf({}, ms(1000)), format), std::invalid_argument);
}

TEST(SequenceAudioStretch, KeepsEveryFilterFactorWithinItsRange) {
  struct Row {
    std::int32_t permille;
    bool rubberband;
    const char* expected;
  };
  const Row rows[] = {
      {2000, true, "rubberband=tempo=2"},
      {500, true, "rubberband=tempo=0.5"},
      {1250, true, "rubberband=tempo=1.25"},
      {2000, false, "atempo=2"},
      {500, false, "atempo=0.5"},
      {3000, false, "atempo=2,atempo=1.5"},
      {4000, false, "atempo=2,atempo=2"},
      {250, false, "atempo=0.5,atempo=0.5"},
      {1010, false, "atempo=1.01"},
  };
  for (const Row& row : rows)
    EXPECT_EQ(SequenceAudioReader::stretchFilterDescription(row.permille, row.rubberband), row.expected)
        << row.permille;
}

}  // namespace
}  // namespace vumo
