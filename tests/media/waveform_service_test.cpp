#include "media/waveform_service.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "media/media_container.h"
#include "media/media_errors.h"
#include "media/waveform_cache.h"
#include "media_fixtures.h"
#include "shared/files.h"

namespace vumo {
namespace {

using namespace vumo::testing;

// Bucket b of 960 frames rises to (b + 1) × 100 in its first half and falls to -(b + 1) × 50.
const std::string risingPattern = "(floor(n/960)+1)*if(lt(mod(n,960),480),100,-50)";

WaveformPeak patternPeak(std::int64_t bucket) {
  return {static_cast<std::int16_t>(-(bucket + 1) * 50), static_cast<std::int16_t>((bucket + 1) * 100)};
}

std::vector<WaveformPeak> patternPeaks(std::int64_t count) {
  std::vector<WaveformPeak> peaks;
  for (std::int64_t b = 0; b < count; ++b) peaks.push_back(patternPeak(b));
  return peaks;
}

struct Recorded {
  WaveformEnvelope envelope;
  std::vector<double> progress;
};

Recorded request(WaveformService& service, const ProjectSnapshot& snapshot,
                 MediaTrackKind kind = MediaTrackKind::microphone) {
  Recorded recorded;
  recorded.envelope = service.envelope(kind, snapshot, [&](double value) { recorded.progress.push_back(value); }, {});
  return recorded;
}

std::string fileBytes(const std::filesystem::path& path) { return readFile(path, 1 << 20); }

class WaveformServiceTest : public ::testing::Test {
 protected:
  TemporaryDirectory folder;
  WaveformService service;
};

TEST_F(WaveformServiceTest, PeaksOfKnownSamples) {
  struct Row {
    const char* name;
    AudioPackage audio;
    std::vector<WaveformPeak> expected;
  };
  std::vector<WaveformPeak> late(50, WaveformPeak{0, 0});
  for (const WaveformPeak& peak : patternPeaks(50)) late.push_back(peak);
  const std::vector<Row> rows = {
      {"mono: one peak per 960 samples", {{risingPattern}, 48'000}, patternPeaks(50)},
      {"stereo: one peak per 1920 samples",
       {{"(floor(n/960)+1)*100", "-(floor(n/960)+1)*50"}, 48'000},
       patternPeaks(50)},
      {"a partial last bucket", {{risingPattern}, 1000}, {patternPeak(0), {200, 200}}},
      {"starting 1 s late: 50 silent peaks first", {{risingPattern}, 48'000, 1.0}, late},
  };
  for (const Row& row : rows) {
    TemporaryDirectory root;
    ProjectSnapshot snapshot = makeAudioPackage(root.path(), row.audio);
    Recorded recorded = request(service, snapshot);
    EXPECT_EQ(recorded.envelope.kind, MediaTrackKind::microphone) << row.name;
    EXPECT_EQ(recorded.envelope.peaks, row.expected) << row.name;
  }
}

TEST_F(WaveformServiceTest, WritesTheCacheAndAnswersFromItWithoutReadingTheMovie) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{risingPattern}, 48'000, 0, MediaTrackKind::systemAudio});
  const std::filesystem::path movie = MediaContainer::moviePath(snapshot);
  Recorded first = request(service, snapshot, MediaTrackKind::systemAudio);
  ASSERT_EQ(first.envelope.peaks, patternPeaks(50));

  const std::filesystem::path cache = snapshot.packagePath / "cache" / "waveform" / "systemAudio.cswf";
  ASSERT_EQ(WaveformCache::path(snapshot, MediaTrackKind::systemAudio), cache);
  const std::string bytes = fileBytes(cache);
  ASSERT_EQ(bytes.size(), 40u + 4 * 50);
  MediaFingerprint print = WaveformCache::fingerprint(movie);
  EXPECT_EQ(print.size, std::filesystem::file_size(movie));
  auto le = [&](std::size_t offset, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i)
      value |= std::uint64_t(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
    return value;
  };
  EXPECT_EQ(bytes.substr(0, 4), "CSWF");
  EXPECT_EQ(le(4, 2), 1u);
  EXPECT_EQ(le(6, 2), 1u);
  EXPECT_EQ(le(8, 8), print.size);
  EXPECT_EQ(static_cast<std::int64_t>(le(16, 8)), print.modifiedNanoseconds);
  EXPECT_EQ(le(24, 8), 20'000'000u);
  EXPECT_EQ(le(32, 8), 50u);
  EXPECT_EQ(static_cast<std::int16_t>(le(40, 2)), -50);
  EXPECT_EQ(static_cast<std::int16_t>(le(42, 2)), 100);
  EXPECT_EQ(static_cast<std::int16_t>(le(40 + 4 * 49, 2)), -2500);
  EXPECT_EQ(static_cast<std::int16_t>(le(42 + 4 * 49, 2)), 5000);

  // Same size and time, but no movie left in the bytes: only the cache can answer.
  struct stat before {};
  ASSERT_EQ(::stat(movie.c_str(), &before), 0);
  writeFileAtomically(movie, std::string(before.st_size, '\0'));
  const timespec times[2] = {before.st_atim, before.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, movie.c_str(), times, 0), 0);
  Recorded second = request(service, snapshot, MediaTrackKind::systemAudio);
  EXPECT_EQ(second.envelope, first.envelope);
  EXPECT_EQ(second.progress, std::vector<double>{1.0});

  // Touched: the cache is stale, the movie is read and fails.
  const timespec later[2] = {before.st_atim, {before.st_mtim.tv_sec + 1, before.st_mtim.tv_nsec}};
  ASSERT_EQ(::utimensat(AT_FDCWD, movie.c_str(), later, 0), 0);
  EXPECT_THROW(request(service, snapshot, MediaTrackKind::systemAudio), MediaContainerError);
}

TEST_F(WaveformServiceTest, RebuildsAStaleOrDamagedCacheWithoutComplaint) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{risingPattern}, 48'000});
  const std::filesystem::path cache = WaveformCache::path(snapshot, MediaTrackKind::microphone);
  request(service, snapshot);
  const std::string good = fileBytes(cache);

  auto withByte = [&](std::size_t offset, char value) {
    std::string bytes = good;
    bytes[offset] = value;
    return bytes;
  };
  auto flipped = [&](std::size_t offset) { return withByte(offset, static_cast<char>(good[offset] ^ 1)); };
  struct Row {
    const char* name;
    std::string bytes;
  };
  const std::vector<Row> rows = {
      {"39 bytes", good.substr(0, 39)},
      {"wrong magic", withByte(0, 'X')},
      {"version 2", withByte(4, 2)},
      {"another track index", withByte(6, 2)},
      {"another size", flipped(8)},
      {"another time", flipped(16)},
      {"another bucket", flipped(24)},
      {"a count the length disagrees with", good.substr(0, good.size() - 4)},
      {"a longer file than its count", good + "ab"},
      {"a negative count", withByte(39, static_cast<char>(0x80))},
      {"empty", ""},
  };
  for (const Row& row : rows) {
    writeFileAtomically(cache, row.bytes);
    Recorded recorded = request(service, snapshot);
    EXPECT_EQ(recorded.envelope.peaks, patternPeaks(50)) << row.name;
    EXPECT_EQ(fileBytes(cache), good) << row.name;
  }

  // Touching the movie makes the cache stale: decoded again, and the new time written.
  struct stat status {};
  ASSERT_EQ(::stat(MediaContainer::moviePath(snapshot).c_str(), &status), 0);
  const timespec later[2] = {status.st_atim, {status.st_mtim.tv_sec + 5, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, MediaContainer::moviePath(snapshot).c_str(), later, 0), 0);
  EXPECT_EQ(request(service, snapshot).envelope.peaks, patternPeaks(50));
  const std::string rewritten = fileBytes(cache);
  EXPECT_NE(rewritten.substr(16, 8), good.substr(16, 8));
  EXPECT_EQ(rewritten.substr(40), good.substr(40));

  // A FIFO or a folder planted as the cache neither hangs nor fails the request.
  std::filesystem::remove(cache);
  ASSERT_EQ(::mkfifo(cache.c_str(), 0600), 0);
  EXPECT_EQ(request(service, snapshot).envelope.peaks, patternPeaks(50));
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(cache)));
}

TEST_F(WaveformServiceTest, AValidCacheWithoutPeaksIsAnEmptyEnvelope) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{risingPattern}, 48'000});
  const std::filesystem::path cache = WaveformCache::path(snapshot, MediaTrackKind::microphone);
  createDirectories(cache.parent_path());
  WaveformEnvelope empty;
  empty.kind = MediaTrackKind::microphone;
  WaveformCache::write(cache, empty, 1, WaveformCache::fingerprint(MediaContainer::moviePath(snapshot)));
  EXPECT_EQ(fileBytes(cache).size(), 40u);
  Recorded recorded = request(service, snapshot);
  EXPECT_EQ(recorded.envelope, empty);
  EXPECT_EQ(recorded.progress, std::vector<double>{1.0});
}

TEST_F(WaveformServiceTest, ProgressStaysBelowOneUntilTheEndAndCancellationWritesNoCache) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{"1000"}, 48'000 * 12});
  const std::filesystem::path cache = WaveformCache::path(snapshot, MediaTrackKind::microphone);

  std::stop_source stop;
  auto cancelling = [&](double) { stop.request_stop(); };
  EXPECT_THROW(service.envelope(MediaTrackKind::microphone, snapshot, cancelling, stop.get_token()), CancelledError);
  EXPECT_FALSE(std::filesystem::exists(cache));
  EXPECT_TRUE(std::filesystem::is_directory(cache.parent_path()));

  Recorded recorded = request(service, snapshot);
  EXPECT_EQ(recorded.envelope.peaks.size(), 600u);
  EXPECT_EQ(recorded.envelope.peaks[300], (WaveformPeak{1000, 1000}));
  ASSERT_GT(recorded.progress.size(), 2u);
  EXPECT_EQ(recorded.progress.back(), 1.0);
  for (std::size_t i = 0; i + 1 < recorded.progress.size(); ++i) {
    EXPECT_LE(recorded.progress[i], 0.99);
    EXPECT_GT(recorded.progress[i], 0.0);
  }
  EXPECT_TRUE(std::filesystem::exists(cache));
}

TEST_F(WaveformServiceTest, RefusesTracksItCannotRead) {
  ProjectSnapshot snapshot = makeAudioPackage(folder.path(), {{risingPattern}, 48'000});
  EXPECT_ERROR_CASE(request(service, snapshot, MediaTrackKind::screen), WaveformServiceError,
                    WaveformServiceError::Case::unsupportedTrack);
  EXPECT_ERROR_CASE(request(service, snapshot, MediaTrackKind::systemAudio), WaveformServiceError,
                    WaveformServiceError::Case::cannotReadTrack);
  try {
    throw WaveformServiceError(WaveformServiceError::Case::readerFailed, readerDidNotFinish.englishText);
  } catch (const Error& error) {
    EXPECT_EQ(error.message(), "Waveform decoding failed: The media reader did not finish");
    EXPECT_EQ(error.localizationKey(), "media.waveform.failed");
  }
}

}  // namespace
}  // namespace vumo
