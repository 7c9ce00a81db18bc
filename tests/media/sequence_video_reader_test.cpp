#include "media/sequence_video_reader.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "media/recording_media_writer.h"
#include "media_fixtures.h"
#include "shared/error.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// 16×16 pictures at 10 fps for 4 s; frame n has luma 16 + 5n everywhere (so 16...211), and the
// chroma given.
std::string numberedFramesGraph(int cb = 100, int cr = 200, const std::string& format = "yuv420p") {
  return fmt::format("color=c=black:s=16x16:r=10:d=4,format={},geq=lum=16+5*N:cb={}:cr={}", format, cb, cr);
}

// Rounded, so that a lossy codec's level a step or two off still names its frame.
int frameNumberOf(const DecodedVideoFrame& frame) { return (frame.planes[0][0] - 16 + 2) / 5; }

// A movie of the numbered frames in `name`, written with `options` (lossless codecs keep levels exact).
std::filesystem::path makeMovie(const std::filesystem::path& folder, const std::string& name, const std::string& graph,
                                std::vector<std::string> options) {
  std::vector<std::string> arguments = lavfiInput(graph);
  arguments.insert(arguments.end(), options.begin(), options.end());
  arguments.push_back((folder / name).string());
  runFfmpeg(arguments);
  return folder / name;
}

CompositionPiece piece(ProjectTimeRange source, ProjectTime sequenceStart, ProjectTime sequenceDuration,
                       std::int32_t permille = 1000) {
  return {source, sequenceStart, sequenceDuration, permille};
}

CompositionTrack screenTrack(std::vector<CompositionPiece> pieces) {
  return {CompositionTrackRole::screen, 0, std::move(pieces)};
}

class SequenceVideo : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    folder = new TemporaryDirectory();
    movie = new std::filesystem::path(
        makeMovie(folder->path(), "numbered.mov", numberedFramesGraph(), {"-c:v", "ffv1", "-pix_fmt", "yuv420p"}));
    // A keyframe each second and B-frames, so pictures depend on others and arrive out of order.
    groupedMovie = new std::filesystem::path(makeMovie(folder->path(), "grouped.mov", numberedFramesGraph(),
                                                       {"-c:v", "mpeg4", "-q:v", "1", "-g", "10", "-bf", "2"}));
  }
  static void TearDownTestSuite() {
    delete groupedMovie;
    delete movie;
    delete folder;
  }
  static std::vector<std::filesystem::path> movies() { return {*movie, *groupedMovie}; }

  // 0–1 s at normal speed; 2–4 s at 2× (one second); a hole of a second; 1–1.5 s; 0.5–1 s at 0.5×.
  static CompositionTrack editedTrack() {
    return screenTrack({piece(rangeMs(0, 1000), ms(0), ms(1000)), piece(rangeMs(2000, 4000), ms(1000), ms(1000), 2000),
                        piece(rangeMs(1000, 1500), ms(3000), ms(500)),
                        piece(rangeMs(500, 1000), ms(3500), ms(1000), 500)});
  }

  static TemporaryDirectory* folder;
  static std::filesystem::path* movie;         // every frame a keyframe, levels exact
  static std::filesystem::path* groupedMovie;  // groups of pictures, levels within a step
};

TemporaryDirectory* SequenceVideo::folder = nullptr;
std::filesystem::path* SequenceVideo::movie = nullptr;
std::filesystem::path* SequenceVideo::groupedMovie = nullptr;

// Sequence time (ms, or ns where marked) → the source frame shown, -1 for none.
struct Expectation {
  ProjectTime time;
  int frame;
};

const std::vector<Expectation>& editedExpectations() {
  static const std::vector<Expectation> rows = {
      {ns(-1), -1},
      {ms(0), 0},
      {ms(99), 0},
      {ms(100), 1},
      {ms(999), 9},
      // 2×: sequence 1,049 ms is source 2,098 ms, 1,050 ms is 2,100 ms.
      {ms(1000), 20},
      {ms(1049), 20},
      {ms(1050), 21},
      {ms(1500), 30},
      {ms(1999), 39},
      {ms(2000), -1},
      {ms(2500), -1},
      {ns(2'999'999'999), -1},
      {ms(3000), 10},
      {ms(3499), 14},
      // 0.5×: 3,690 ms is source 595 ms, 3,700 ms is 600 ms, 4,000 ms is 750 ms, 4,499 ms is 999.5 ms.
      {ms(3500), 5},
      {ms(3690), 5},
      {ms(3700), 6},
      {ms(4000), 7},
      {ms(4499), 9},
      {ms(4500), -1},
      {ms(9000), -1},
  };
  return rows;
}

TEST_F(SequenceVideo, ShowsTheSourceFrameOfEverySequenceTime) {
  // In order, in reverse, and each on a fresh reader: the answer never depends on what came before.
  std::vector<Expectation> reversed(editedExpectations().rbegin(), editedExpectations().rend());
  for (const auto& [path, rows] :
       {std::pair{*movie, editedExpectations()}, std::pair{*movie, reversed},
        std::pair{*groupedMovie, editedExpectations()}, std::pair{*groupedMovie, reversed}}) {
    SCOPED_TRACE(path.filename().string());
    SequenceVideoReader reader(MediaContainer::open(path), editedTrack());
    for (const Expectation& row : rows) {
      SCOPED_TRACE(row.time.nanoseconds);
      std::optional<DecodedVideoFrame> frame = reader.frameAt(row.time);
      if (row.frame < 0) {
        EXPECT_FALSE(frame);
        continue;
      }
      ASSERT_TRUE(frame);
      EXPECT_EQ(frameNumberOf(*frame), row.frame);
      EXPECT_EQ(frame->sourceTime, ms(100 * row.frame));
      EXPECT_EQ(frame->sequenceTime, row.time);
    }
  }
  for (const Expectation& row : editedExpectations()) {
    SequenceVideoReader reader(MediaContainer::open(*movie), editedTrack());
    std::optional<DecodedVideoFrame> frame = reader.frameAt(row.time);
    EXPECT_EQ(frame ? frameNumberOf(*frame) : -1, row.frame) << row.time.nanoseconds;
  }
}

TEST_F(SequenceVideo, DecodesForwardWithinAPieceAndSeeksOnJumps) {
  for (const std::filesystem::path& path : movies()) {
    SCOPED_TRACE(path.filename().string());
    SequenceVideoReader reader(MediaContainer::open(path), editedTrack());
    // Every 10 ms through the first piece: one seek to start, then decoding forward only.
    for (int t = 0; t < 1000; t += 10) {
      std::optional<DecodedVideoFrame> frame = reader.frameAt(ms(t));
      ASSERT_TRUE(frame);
      ASSERT_EQ(frameNumberOf(*frame), t / 100) << t;
    }
    EXPECT_EQ(reader.seekCount(), 1);
    // The 2× piece starts at source 2 s, a keyframe past the next frame, so the reader jumps there;
    // then it goes on decoding forward through every second frame, keyframes or not.
    for (int t = 1000; t < 2000; t += 10) {
      std::optional<DecodedVideoFrame> frame = reader.frameAt(ms(t));
      ASSERT_TRUE(frame);
      ASSERT_EQ(frameNumberOf(*frame), 20 + (t - 1000) / 50) << t;
    }
    EXPECT_EQ(reader.seekCount(), 2);
    // A hole costs nothing; the same time twice, nothing either.
    EXPECT_FALSE(reader.frameAt(ms(2500)));
    EXPECT_EQ(frameNumberOf(*reader.frameAt(ms(1999))), 39);
    EXPECT_EQ(reader.seekCount(), 2);
    // Backwards: a seek.
    EXPECT_EQ(frameNumberOf(*reader.frameAt(ms(3000))), 10);
    EXPECT_EQ(reader.seekCount(), 3);
  }
}

TEST_F(SequenceVideo, AFrameStaysValidAfterTheReaderMovesOn) {
  SequenceVideoReader reader(MediaContainer::open(*movie), editedTrack());
  std::optional<DecodedVideoFrame> early = reader.frameAt(ms(250));
  ASSERT_TRUE(early);
  for (int t = 260; t < 1000; t += 50) reader.frameAt(ms(t));
  reader.frameAt(ms(1500));
  EXPECT_EQ(frameNumberOf(*early), 2);
  EXPECT_EQ(early->planes[0][early->strides[0] * 15 + 15], 16 + 5 * 2);
}

// A recording's movie has a variable frame rate: a still screen is written as a picture a second.
// The picture shown in the middle of a still stretch is the still one, and the change after it
// shows from its own time.
TEST(SequenceVideoOfARecording, ShowsTheStillPictureUntilTheChange) {
  TemporaryDirectory folder;
  const auto url = folder.path() / "recording.mov";
  auto solid = [](std::uint8_t level) {
    auto buffer = std::make_shared<PixelBuffer>();
    buffer->width = 64;
    buffer->height = 64;
    buffer->stride = 64 * 4;
    buffer->bytes.assign(64 * 64 * 4, level);
    return std::shared_ptr<const PixelBuffer>(std::move(buffer));
  };
  // Black for three seconds at 30 fps, then white until 3.967 s; each handed in once as a change
  // and then repeated.
  const auto black = solid(0), white = solid(255);
  const std::int64_t interval = 1'000'000'000 / 30;
  {
    RecordingWriterConfiguration configuration;
    configuration.url = url;
    configuration.size = {64, 64};
    configuration.framesPerSecond = 30;
    configuration.encoderPreference = "libx264";
    RecordingMediaWriter writer(configuration);
    for (int i = 0; i < 120; ++i) {
      VideoFrame frame;
      frame.pixels = i < 90 ? black : white;
      frame.changed = i == 0 || i == 90;
      writer.appendVideo(frame, i * interval);
      writer.waitUntilEncodedForTesting();
    }
    EXPECT_EQ(writer.finish().duration, ns(119 * interval));
  }
  const CompositionTrack track = screenTrack({piece(rangeMs(0, 3967), ms(0), ms(3967))});
  // Sequence time (ms) → the picture's luma (limited range: black 16, white 235).
  const std::vector<std::pair<int, int>> rows = {{0, 16},    {500, 16},   {1500, 16},  {2500, 16},
                                                 {2990, 16}, {3010, 235}, {3500, 235}, {3966, 235}};
  std::vector<std::pair<int, int>> reversed(rows.rbegin(), rows.rend());
  for (const auto& order : {rows, reversed}) {
    SequenceVideoReader reader(MediaContainer::open(url), track);
    for (const auto& [time, level] : order) {
      std::optional<DecodedVideoFrame> frame = reader.frameAt(ms(time));
      ASSERT_TRUE(frame) << time;
      EXPECT_NEAR(frame->planes[0][32 * frame->strides[0] + 32], level, 3) << time;
      EXPECT_LE(frame->sourceTime, ms(time)) << time;
    }
  }
  for (const auto& [time, level] : rows) {
    SequenceVideoReader reader(MediaContainer::open(url), track);
    std::optional<DecodedVideoFrame> frame = reader.frameAt(ms(time));
    ASSERT_TRUE(frame) << time;
    EXPECT_NEAR(frame->planes[0][32 * frame->strides[0] + 32], level, 3) << time;
  }
}

TEST_F(SequenceVideo, DeliversPlanesInTheDecodersLayoutOrYuv420p) {
  struct Row {
    const char* name;
    std::string graph;
    std::vector<std::string> options;
    std::string movieName;
    VideoPixelLayout layout;
    VideoColorRange range;
    VideoColorMatrix matrix;
    int cb;
    int cr;
    int tolerance;  // of every level: 0 where no conversion happens
  };
  const Row rows[] = {
      {"yuv420p",
       numberedFramesGraph(),
       {"-c:v", "ffv1"},
       "a.mov",
       VideoPixelLayout::yuv420p,
       VideoColorRange::limited,
       VideoColorMatrix::bt709,
       100,
       200,
       0},
      {"nv12",
       numberedFramesGraph(),
       {"-vf", "format=nv12", "-c:v", "rawvideo"},
       "b.mkv",
       VideoPixelLayout::nv12,
       VideoColorRange::limited,
       VideoColorMatrix::bt709,
       100,
       200,
       0},
      {"yuv444p through one scaling step",
       numberedFramesGraph(100, 200, "yuv444p"),
       {"-c:v", "ffv1"},
       "c.mkv",
       VideoPixelLayout::yuv420p,
       VideoColorRange::limited,
       VideoColorMatrix::bt709,
       100,
       200,
       1},
      {"full range",
       numberedFramesGraph(),
       {"-c:v", "ffv1", "-color_range", "pc"},
       "d.mkv",
       VideoPixelLayout::yuv420p,
       VideoColorRange::full,
       VideoColorMatrix::bt709,
       100,
       200,
       0},
      {"BT.601",
       numberedFramesGraph(),
       {"-c:v", "ffv1", "-colorspace", "bt470bg"},
       "e.mkv",
       VideoPixelLayout::yuv420p,
       VideoColorRange::limited,
       VideoColorMatrix::bt601,
       100,
       200,
       0},
      // Grey, so that the luma survives RGB whatever the matrix.
      {"RGB becomes limited BT.709",
       numberedFramesGraph(128, 128),
       {"-vf", "format=bgr0", "-c:v", "ffv1"},
       "f.mkv",
       VideoPixelLayout::yuv420p,
       VideoColorRange::limited,
       VideoColorMatrix::bt709,
       128,
       128,
       2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::filesystem::path path = makeMovie(folder->path(), row.movieName, row.graph, row.options);
    SequenceVideoReader reader(MediaContainer::open(path), screenTrack({piece(rangeMs(0, 4000), ms(0), ms(4000))}));
    std::optional<DecodedVideoFrame> frame = reader.frameAt(ms(1250));
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->width, 16);
    EXPECT_EQ(frame->height, 16);
    EXPECT_EQ(frame->layout, row.layout);
    EXPECT_EQ(frame->range, row.range);
    EXPECT_EQ(frame->matrix, row.matrix);
    EXPECT_EQ(frame->sourceTime, ms(1200));
    const bool nv12 = row.layout == VideoPixelLayout::nv12;
    ASSERT_EQ(frame->planeCount, nv12 ? 2 : 3);
    EXPECT_EQ(frame->planes[2] == nullptr, nv12);
    EXPECT_GE(frame->strides[0], 16);
    EXPECT_GE(frame->strides[1], nv12 ? 16 : 8);
    if (!nv12) {
      EXPECT_GE(frame->strides[2], 8);
    }

    auto near = [&](int value, int expected) { return std::abs(value - expected) <= row.tolerance; };
    int wrong = 0;
    for (int y = 0; y < 16; ++y)
      for (int x = 0; x < 16; ++x) wrong += near(frame->planes[0][y * frame->strides[0] + x], 16 + 5 * 12) ? 0 : 1;
    for (int y = 0; y < 8; ++y) {
      for (int x = 0; x < 8; ++x) {
        const int cb =
            nv12 ? frame->planes[1][y * frame->strides[1] + 2 * x] : frame->planes[1][y * frame->strides[1] + x];
        const int cr =
            nv12 ? frame->planes[1][y * frame->strides[1] + 2 * x + 1] : frame->planes[2][y * frame->strides[2] + x];
        wrong += near(cb, row.cb) && near(cr, row.cr) ? 0 : 1;
      }
    }
    EXPECT_EQ(wrong, 0);
  }
}

TEST_F(SequenceVideo, StopsWhenCancelled) {
  std::stop_source stop;
  SequenceVideoReader reader(MediaContainer::open(*movie, stop.get_token()), editedTrack());
  ASSERT_TRUE(reader.frameAt(ms(0)));
  stop.request_stop();
  EXPECT_THROW(reader.frameAt(ms(500)), CancelledError);
}

TEST_F(SequenceVideo, RefusesAStreamThatIsNotVideo) {
  const std::filesystem::path path =
      makeMovie(folder->path(), "sound.mov", numberedFramesGraph(),
                {"-f", "lavfi", "-i", "sine=d=1", "-map", "1:a", "-map", "0:v", "-c:v", "ffv1", "-c:a", "pcm_s16le"});
  for (std::int64_t stream : {std::int64_t{0}, std::int64_t{2}, std::int64_t{-1}}) {
    CompositionTrack track = editedTrack();
    track.streamIndex = stream;
    try {
      SequenceVideoReader reader(MediaContainer::open(path), track);
      ADD_FAILURE() << "read stream " << stream;
    } catch (const SequenceReaderError& error) {
      EXPECT_EQ(error.kind(), SequenceReaderError::Case::unsupportedStream);
    }
  }
  CompositionTrack video = editedTrack();
  video.streamIndex = 1;
  SequenceVideoReader reader(MediaContainer::open(path), video);
  EXPECT_EQ(frameNumberOf(*reader.frameAt(ms(3000))), 10);
}

}  // namespace
}  // namespace vumo
