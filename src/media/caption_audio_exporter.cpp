#include "media/caption_audio_exporter.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>

#include "media/audio_stream_reader.h"
#include "media/media_container.h"
#include "media/media_errors.h"
#include "media/timeline_track_resolver.h"
#include "shared/cancellation.h"

namespace vumo {

using namespace media_detail;

namespace {

using Case = CaptionAudioExporterError::Case;

// A gap shorter than this between where a buffer says it starts and where the file stands is
// rounding, not a hole in the track.
constexpr std::int64_t gapToleranceSamples = CaptionAudioFormat::sampleRate / 1000;

class OutputFile {
 public:
  explicit OutputFile(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0666)) {
    if (fd_ < 0) throw CaptionAudioExporterError(Case::cannotWrite);
  }
  ~OutputFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void writeAt(const void* bytes, std::size_t count, off_t offset) {
    const auto* from = static_cast<const char*>(bytes);
    while (count > 0) {
      ssize_t written = ::pwrite(fd_, from, count, offset);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) throw CaptionAudioExporterError(Case::cannotWrite);
      from += written;
      count -= static_cast<std::size_t>(written);
      offset += written;
    }
  }

  void close() {
    int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) throw CaptionAudioExporterError(Case::cannotWrite);
  }

 private:
  int fd_;
};

void putLittleEndian(std::array<unsigned char, 44>& header, std::size_t offset, std::uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) header[offset + static_cast<std::size_t>(i)] = (value >> (8 * i)) & 0xff;
}

std::array<unsigned char, 44> waveHeader(std::uint32_t dataBytes) {
  std::array<unsigned char, 44> header{};
  auto tag = [&](std::size_t offset, const char* text) { std::memcpy(header.data() + offset, text, 4); };
  constexpr std::uint32_t blockAlign = CaptionAudioFormat::channels * CaptionAudioFormat::bitsPerSample / 8;
  tag(0, "RIFF");
  putLittleEndian(header, 4, 36 + dataBytes, 4);
  tag(8, "WAVE");
  tag(12, "fmt ");
  putLittleEndian(header, 16, 16, 4);  // size of the format chunk
  putLittleEndian(header, 20, 1, 2);   // integer PCM
  putLittleEndian(header, 22, CaptionAudioFormat::channels, 2);
  putLittleEndian(header, 24, CaptionAudioFormat::sampleRate, 4);
  putLittleEndian(header, 28, CaptionAudioFormat::sampleRate * blockAlign, 4);
  putLittleEndian(header, 32, blockAlign, 2);
  putLittleEndian(header, 34, CaptionAudioFormat::bitsPerSample, 2);
  tag(36, "data");
  putLittleEndian(header, 40, dataBytes, 4);
  return header;
}

}  // namespace

void CaptionAudioExporter::exportAudio(const ProjectSnapshot& snapshot, MediaTrackKind kind,
                                       const std::filesystem::path& target, std::stop_token stopToken) {
  throwIfCancelled(stopToken);
  bool described = false;
  for (const MediaTrack& track : snapshot.manifest.media.tracks) described = described || track.kind == kind;
  if (kind == MediaTrackKind::screen || !described) throw CaptionAudioExporterError::missingTrack(kind);
  MediaContainer container = MediaContainer::open(snapshot, stopToken);
  const std::optional<ResolvedTrack> track = TimelineTrackResolver::resolve(container, snapshot.manifest).track(kind);
  if (!track) throw CaptionAudioExporterError::missingTrack(kind);

  std::error_code ignored;
  std::filesystem::remove(target, ignored);

  std::optional<AudioStreamReader> reader;
  try {
    reader.emplace(container, track->streamIndex, CaptionAudioFormat::sampleRate, CaptionAudioFormat::channels);
  } catch (const AudioReadFailure& failure) {
    throw CaptionAudioExporterError(failure.stage() == AudioReadFailure::Stage::noDecoder ? Case::cannotRead
                                                                                          : Case::cannotStart);
  }
  OutputFile file(target);
  file.writeAt(waveHeader(0).data(), CaptionAudioFormat::headerBytes, 0);

  constexpr std::uint64_t maximumDataBytes = std::numeric_limits<std::uint32_t>::max() - 36;
  std::uint64_t dataBytes = 0;
  auto append = [&](const void* bytes, std::size_t count) {
    if (dataBytes + count > maximumDataBytes) throw CaptionAudioExporterError(Case::cannotWrite);
    file.writeAt(bytes, count, static_cast<off_t>(CaptionAudioFormat::headerBytes + dataBytes));
    dataBytes += count;
  };
  const std::array<std::int16_t, 1024> silence{};
  const std::int64_t lastBelievablePosition =
      (std::max<std::int64_t>(snapshot.manifest.duration.nanoseconds, 0) / 1'000'000 + 1000) *
      (CaptionAudioFormat::sampleRate / 1000);
  PcmBuffer buffer;
  try {
    while (reader->next(buffer)) {
      throwIfCancelled(stopToken);
      if (buffer.presentationNanoseconds && *buffer.presentationNanoseconds > 0) {
        // Where this buffer belongs, in samples, rounded to the nearest.
        const auto position = static_cast<std::int64_t>(
            (static_cast<__int128>(*buffer.presentationNanoseconds) * CaptionAudioFormat::sampleRate + 500'000'000) /
            1'000'000'000);
        std::int64_t missing = position - static_cast<std::int64_t>(dataBytes / 2);
        // A time far beyond the recording is not believed: it would only fill the disk with zeros.
        if (missing > gapToleranceSamples && position <= lastBelievablePosition) {
          while (missing > 0) {
            const auto count = static_cast<std::size_t>(std::min<std::int64_t>(missing, silence.size()));
            append(silence.data(), count * 2);
            missing -= static_cast<std::int64_t>(count);
          }
        }
      }
      append(buffer.samples, buffer.sampleCount * 2);
    }
  } catch (const AudioReadFailure&) {
    throw CaptionAudioExporterError(Case::cannotWrite);
  }
  throwIfCancelled(stopToken);
  file.writeAt(waveHeader(static_cast<std::uint32_t>(dataBytes)).data(), CaptionAudioFormat::headerBytes, 0);
  file.close();
}

}  // namespace vumo
