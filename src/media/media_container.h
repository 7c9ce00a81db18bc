#pragma once

// The one place that opens a package's movie. Everything that reads media (track resolution,
// waveforms, caption audio, sequence readers) starts from a MediaContainer.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stop_token>

#include "project/project_snapshot.h"
#include "shared/project_time.h"

struct AVFormatContext;
struct AVStream;

namespace vumo {

enum class MediaStreamType { video, audio, other };

// An opened movie with its stream information read. Not copyable; use from one thread at a time.
//
// The file is opened with O_NOFOLLOW | O_NONBLOCK and must be a regular file, so a symbolic link,
// a FIFO or a device planted as the movie is refused at once instead of hanging the reader;
// libavformat then reads through that very descriptor, never the path again. Every read checks
// the stop token given at opening: a stop request ends a blocked or long read, and the operation
// that was under way throws CancelledError.
class MediaContainer {
 public:
  // `packagePath / manifest.media.relativePath`.
  static std::filesystem::path moviePath(const ProjectSnapshot& snapshot);

  // Throws MediaContainerError (notRegularFile, cannotOpen), FileError for a missing file, or
  // CancelledError.
  static MediaContainer open(const std::filesystem::path& path, std::stop_token stopToken = {});
  static MediaContainer open(const ProjectSnapshot& snapshot, std::stop_token stopToken = {});

  MediaContainer(MediaContainer&&) noexcept;
  MediaContainer& operator=(MediaContainer&&) noexcept;
  ~MediaContainer();

  const std::filesystem::path& path() const;
  std::int64_t streamCount() const;
  // Precondition: 0 <= index < streamCount().
  MediaStreamType streamType(std::int64_t index) const;
  // The stream's start and duration in nanoseconds (rounded half away from zero; a value libav
  // does not know counts as 0; a stream without a duration of its own takes the file's).
  ProjectTimeRange streamTimeRange(std::int64_t index) const;

  // For the readers of this area and those built on it: the demuxer, owned by this object. Valid
  // while the container lives; its reads honour the container's stop token.
  AVFormatContext* formatContext() const;
  AVStream* stream(std::int64_t index) const;
  const std::stop_token& stopToken() const;

 private:
  struct State;
  explicit MediaContainer(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

// libav's time `value` in `timeBase` as nanoseconds, rounded half away from zero; none for an
// unknown value or an invalid time base.
std::optional<std::int64_t> nanosecondsFromStreamTime(std::int64_t value, int timeBaseNumerator,
                                                      int timeBaseDenominator);

}  // namespace vumo
