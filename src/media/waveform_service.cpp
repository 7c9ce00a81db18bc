#include "media/waveform_service.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <limits>

#include "media/audio_stream_reader.h"
#include "media/media_container.h"
#include "media/media_errors.h"
#include "media/timeline_track_resolver.h"
#include "media/waveform_cache.h"
#include "project/project_package.h"
#include "shared/cancellation.h"
#include "shared/files.h"

namespace vumo {

using namespace media_detail;

namespace {

static_assert(std::endian::native == std::endian::little, "PCM buffers are read as native 16-bit samples");

constexpr int decodingRate = 48'000;
constexpr int progressEveryBuffers = 50;

const MediaTrack* manifestTrack(const ProjectManifest& manifest, MediaTrackKind kind) {
  for (const MediaTrack& track : manifest.media.tracks)
    if (track.kind == kind) return &track;
  return nullptr;
}

// The count of 16-bit samples two channels of `duration` hold at 48 kHz, at least 1:
// ns × 48,000 ÷ 500,000,000, computed without an overflowing product.
std::int64_t expectedSampleCount(ProjectTime duration) {
  const std::int64_t ns = std::max<std::int64_t>(duration.nanoseconds, 0);
  return std::max<std::int64_t>(1, ns / 62'500 * 6 + (ns % 62'500) * 6 / 62'500);
}

// Running minimum and maximum of the current bucket; appends a peak for every full bucket.
class PeakAccumulator {
 public:
  explicit PeakAccumulator(std::vector<WaveformPeak>& peaks) : peaks_(peaks) {}

  void setSamplesPerBucket(std::size_t samples) { samplesPerBucket_ = samples; }

  // Silence for every bucket before `bucketIndex`, after closing a partial one.
  void padTo(std::int64_t bucketIndex) {
    if (static_cast<std::int64_t>(peaks_.size()) >= bucketIndex) return;
    flushPartial();
    if (static_cast<std::int64_t>(peaks_.size()) < bucketIndex)
      peaks_.resize(static_cast<std::size_t>(bucketIndex), WaveformPeak{0, 0});
  }

  void add(const std::int16_t* samples, std::size_t count) {
    while (count > 0) {
      const std::size_t room = samplesPerBucket_ > fill_ ? samplesPerBucket_ - fill_ : 1;
      const std::size_t take = std::min(room, count);
      scan(samples, take);
      fill_ += take;
      samples += take;
      count -= take;
      if (fill_ >= samplesPerBucket_) closeBucket();
    }
  }

  // Sixteen independent lanes with a fixed trip count, so the compiler turns the loop into vector
  // minimum and maximum instructions at the optimisation level of the build.
  void scan(const std::int16_t* samples, std::size_t count) {
    constexpr std::size_t lanes = 16;
    std::size_t i = 0;
    if (count >= 2 * lanes) {
      std::array<std::int16_t, lanes> low, high;
      low.fill(low_);
      high.fill(high_);
      for (; i + lanes <= count; i += lanes)
        for (std::size_t k = 0; k < lanes; ++k) {
          low[k] = std::min(low[k], samples[i + k]);
          high[k] = std::max(high[k], samples[i + k]);
        }
      low_ = *std::min_element(low.begin(), low.end());
      high_ = *std::max_element(high.begin(), high.end());
    }
    for (; i < count; ++i) {
      low_ = std::min(low_, samples[i]);
      high_ = std::max(high_, samples[i]);
    }
  }

  void flushPartial() {
    if (fill_ > 0) closeBucket();
  }

 private:
  void closeBucket() {
    peaks_.push_back({low_, high_});
    low_ = 32767;
    high_ = -32768;
    fill_ = 0;
  }

  std::vector<WaveformPeak>& peaks_;
  std::size_t samplesPerBucket_ = 1920;
  std::size_t fill_ = 0;
  std::int16_t low_ = 32767;
  std::int16_t high_ = -32768;
};

[[noreturn]] void throwReaderFailed(const std::string& libavText, const MediaReaderText& fallback) {
  throw WaveformServiceError(WaveformServiceError::Case::readerFailed,
                             libavText.empty() ? fallback.englishText : std::string_view(libavText));
}

std::vector<WaveformPeak> decode(const MediaContainer& container, std::int64_t streamIndex,
                                 ProjectTime expectedDuration, const std::function<void(double)>& progress,
                                 const std::stop_token& stopToken) {
  std::optional<AudioStreamReader> reader;
  try {
    reader.emplace(container, streamIndex, decodingRate, 0);
  } catch (const AudioReadFailure& failure) {
    if (failure.stage() == AudioReadFailure::Stage::noDecoder)
      throw WaveformServiceError(WaveformServiceError::Case::cannotReadTrack);
    throwReaderFailed(failure.libavText(), readerDidNotStart);
  }

  const std::int64_t expectedSamples = expectedSampleCount(expectedDuration);
  std::vector<WaveformPeak> peaks;
  PeakAccumulator accumulator(peaks);
  std::int64_t processedSamples = 0;
  std::int64_t bufferCount = 0;
  PcmBuffer buffer;
  try {
    while (reader->next(buffer)) {
      throwIfCancelled(stopToken);
      accumulator.setSamplesPerBucket(buffer.channels > 0 ? 960 * static_cast<std::size_t>(buffer.channels) : 1);
      // A time beyond what a cache may hold is not believed: padding to it would exhaust memory.
      if (buffer.presentationNanoseconds) {
        const std::int64_t bucket =
            std::max<std::int64_t>(*buffer.presentationNanoseconds, 0) / WaveformEnvelope::bucketNanoseconds;
        if (bucket <= static_cast<std::int64_t>(WaveformCache::maximumCachedPeaks)) accumulator.padTo(bucket);
      }
      processedSamples += static_cast<std::int64_t>(buffer.sampleCount);
      accumulator.add(buffer.samples, buffer.sampleCount);
      if (++bufferCount % progressEveryBuffers == 0 && progress)
        progress(std::min(static_cast<double>(processedSamples) / static_cast<double>(expectedSamples), 0.99));
    }
  } catch (const AudioReadFailure& failure) {
    throwReaderFailed(failure.libavText(),
                      failure.stage() == AudioReadFailure::Stage::reading ? readerDidNotFinish : readerDidNotStart);
  }
  accumulator.flushPartial();
  return peaks;
}

}  // namespace

WaveformEnvelope WaveformService::envelope(MediaTrackKind kind, const ProjectSnapshot& snapshot,
                                           const std::function<void(double)>& progress, std::stop_token stopToken) {
  std::lock_guard lock(oneRequestAtATime_);
  if (kind != MediaTrackKind::systemAudio && kind != MediaTrackKind::microphone)
    throw WaveformServiceError(WaveformServiceError::Case::unsupportedTrack);
  throwIfCancelled(stopToken);
  const MediaTrack* described = manifestTrack(snapshot.manifest, kind);
  if (described == nullptr) throw WaveformServiceError(WaveformServiceError::Case::cannotReadTrack);
  createDirectories(ProjectPackage{snapshot.packagePath}.waveformCacheDirectory());
  const std::filesystem::path movie = MediaContainer::moviePath(snapshot);
  const MediaFingerprint print = WaveformCache::fingerprint(movie);
  const std::filesystem::path cache = WaveformCache::path(snapshot, kind);

  // A damaged, stale or unreadable cache only costs a decode; it is never reported.
  try {
    WaveformEnvelope cached = WaveformCache::read(cache, kind, described->trackIndex, print);
    if (progress) progress(1.0);
    return cached;
  } catch (const std::exception&) {
  }

  MediaContainer container = MediaContainer::open(movie, stopToken);
  const ResolvedTimelineTracks tracks = TimelineTrackResolver::resolve(container, snapshot.manifest);
  const std::optional<ResolvedTrack> track = tracks.track(kind);
  if (!track) throw WaveformServiceError(WaveformServiceError::Case::cannotReadTrack);

  WaveformEnvelope result;
  result.kind = kind;
  result.peaks = decode(container, track->streamIndex, snapshot.manifest.duration, progress, stopToken);
  throwIfCancelled(stopToken);  // a cancelled decode leaves no cache behind
  WaveformCache::write(cache, result, described->trackIndex, print);
  if (progress) progress(1.0);
  return result;
}

}  // namespace vumo
