#include "media/waveform_cache.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include "media/media_errors.h"
#include "project/project_package.h"
#include "shared/files.h"

namespace vumo {

namespace {

constexpr char cacheMagic[4] = {'C', 'S', 'W', 'F'};
constexpr std::uint16_t cacheVersion = 1;

template <class T>
T readLittleEndian(const std::string& bytes, std::size_t offset) {
  std::make_unsigned_t<T> value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i)
    value |= static_cast<std::make_unsigned_t<T>>(static_cast<unsigned char>(bytes[offset + i])) << (8 * i);
  return static_cast<T>(value);
}

template <class T>
void appendLittleEndian(std::string& bytes, T value) {
  auto bits = static_cast<std::make_unsigned_t<T>>(value);
  for (std::size_t i = 0; i < sizeof(T); ++i) bytes.push_back(static_cast<char>((bits >> (8 * i)) & 0xff));
}

}  // namespace

std::filesystem::path WaveformCache::path(const ProjectSnapshot& snapshot, MediaTrackKind kind) {
  return ProjectPackage{snapshot.packagePath}.waveformCacheDirectory() / (std::string(nameOf(kind)) + ".cswf");
}

MediaFingerprint WaveformCache::fingerprint(const std::filesystem::path& media) {
  struct stat status {};
  if (::lstat(media.c_str(), &status) != 0) {
    std::string text = fmt::format("Could not read the attributes of {}: {}", media.string(), std::strerror(errno));
    if (isSystemFailure(errno)) throw SystemFileError(text);
    throw FileError(text);
  }
  if (!S_ISREG(status.st_mode)) throw MediaContainerError(MediaContainerError::Case::notRegularFile);
  // The time goes through a double count of seconds, as the cache files written so far have it.
  const double seconds = static_cast<double>(status.st_mtim.tv_sec) + static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
  return {static_cast<std::uint64_t>(status.st_size), static_cast<std::int64_t>(seconds * 1'000'000'000.0)};
}

WaveformEnvelope WaveformCache::read(const std::filesystem::path& path, MediaTrackKind kind, std::int64_t trackIndex,
                                     const MediaFingerprint& fingerprint) {
  const std::string bytes = readFile(path, headerBytes + 4 * maximumCachedPeaks);
  auto invalid = [] { return WaveformServiceError(WaveformServiceError::Case::invalidCache); };
  if (bytes.size() < headerBytes || std::memcmp(bytes.data(), cacheMagic, 4) != 0) throw invalid();
  if (readLittleEndian<std::uint16_t>(bytes, 4) != cacheVersion) throw invalid();
  if (readLittleEndian<std::uint16_t>(bytes, 6) != trackIndex) throw invalid();
  if (readLittleEndian<std::uint64_t>(bytes, 8) != fingerprint.size ||
      readLittleEndian<std::int64_t>(bytes, 16) != fingerprint.modifiedNanoseconds)
    throw invalid();
  if (readLittleEndian<std::uint64_t>(bytes, 24) != static_cast<std::uint64_t>(WaveformEnvelope::bucketNanoseconds))
    throw invalid();
  const std::int64_t count = readLittleEndian<std::int64_t>(bytes, 32);
  if (count < 0 || count > std::numeric_limits<std::int64_t>::max() / 4) throw invalid();
  if (bytes.size() - headerBytes != static_cast<std::uint64_t>(count) * 4) throw invalid();

  WaveformEnvelope envelope;
  envelope.kind = kind;
  envelope.peaks.resize(static_cast<std::size_t>(count));
  for (std::size_t i = 0; i < envelope.peaks.size(); ++i) {
    const std::size_t offset = headerBytes + 4 * i;
    envelope.peaks[i] = {readLittleEndian<std::int16_t>(bytes, offset),
                         readLittleEndian<std::int16_t>(bytes, offset + 2)};
  }
  return envelope;
}

void WaveformCache::write(const std::filesystem::path& path, const WaveformEnvelope& envelope, std::int64_t trackIndex,
                          const MediaFingerprint& fingerprint) {
  std::string bytes;
  bytes.reserve(headerBytes + 4 * envelope.peaks.size());
  bytes.append(cacheMagic, 4);
  appendLittleEndian<std::uint16_t>(bytes, cacheVersion);
  appendLittleEndian<std::uint16_t>(bytes, static_cast<std::uint16_t>(std::clamp<std::int64_t>(trackIndex, 0, 65535)));
  appendLittleEndian<std::uint64_t>(bytes, fingerprint.size);
  appendLittleEndian<std::int64_t>(bytes, fingerprint.modifiedNanoseconds);
  appendLittleEndian<std::uint64_t>(bytes, static_cast<std::uint64_t>(WaveformEnvelope::bucketNanoseconds));
  appendLittleEndian<std::uint64_t>(bytes, envelope.peaks.size());
  for (const WaveformPeak& peak : envelope.peaks) {
    appendLittleEndian<std::int16_t>(bytes, peak.minimum);
    appendLittleEndian<std::int16_t>(bytes, peak.maximum);
  }
  writeFileAtomically(path, bytes);
}

std::optional<WaveformEnvelope> WaveformCache::current(const ProjectSnapshot& snapshot, MediaTrackKind kind) {
  const auto& tracks = snapshot.manifest.media.tracks;
  auto described = std::find_if(tracks.begin(), tracks.end(), [&](const MediaTrack& t) { return t.kind == kind; });
  if (described == tracks.end()) return std::nullopt;
  try {
    const auto print =
        fingerprint(ProjectPackage{snapshot.packagePath}.rootPath / snapshot.manifest.media.relativePath);
    return read(path(snapshot, kind), kind, described->trackIndex, print);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace vumo
