#include "media/media_container.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "media/libav_handles.h"
#include "media/media_errors.h"
#include "shared/cancellation.h"
#include "shared/files.h"

extern "C" {
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
}

namespace vumo {

using namespace media_detail;

namespace {

constexpr int ioBufferBytes = 64 * 1024;

[[noreturn]] void throwOpenFailure(const std::filesystem::path& path, int error) {
  std::string text = fmt::format("Could not open {}: {}", path.string(), std::strerror(error));
  if (isSystemFailure(error)) throw SystemFileError(text);
  throw FileError(text);
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

// Declared in the order of construction; the demuxer goes first, then its I/O, then the file.
struct MediaContainer::State {
  State(std::filesystem::path p, int fd, std::stop_token token)
      : path(std::move(p)), descriptor(fd), stopToken(std::move(token)) {}

  std::filesystem::path path;
  Descriptor descriptor;
  std::stop_token stopToken;
  IOContextPtr io;
  InputFormatPtr format;

  static int read(void* opaque, std::uint8_t* into, int room) {
    auto* state = static_cast<State*>(opaque);
    if (state->stopToken.stop_requested()) return AVERROR_EXIT;
    for (;;) {
      ssize_t count = ::read(state->descriptor.get(), into, static_cast<std::size_t>(room));
      if (count > 0) return static_cast<int>(count);
      if (count == 0) return AVERROR_EOF;
      if (errno != EINTR) return AVERROR(errno);
    }
  }

  static std::int64_t seek(void* opaque, std::int64_t offset, int whence) {
    auto* state = static_cast<State*>(opaque);
    if ((whence & AVSEEK_SIZE) != 0) {
      struct stat status {};
      if (::fstat(state->descriptor.get(), &status) != 0) return AVERROR(errno);
      return status.st_size;
    }
    off_t position = ::lseek(state->descriptor.get(), offset, whence & ~AVSEEK_FORCE);
    return position < 0 ? AVERROR(errno) : position;
  }

  static int interrupted(void* opaque) { return static_cast<State*>(opaque)->stopToken.stop_requested() ? 1 : 0; }
};

MediaContainer::MediaContainer(std::unique_ptr<State> state) : state_(std::move(state)) {}
MediaContainer::MediaContainer(MediaContainer&&) noexcept = default;
MediaContainer& MediaContainer::operator=(MediaContainer&&) noexcept = default;
MediaContainer::~MediaContainer() = default;

std::filesystem::path MediaContainer::moviePath(const ProjectSnapshot& snapshot) {
  return snapshot.packagePath / snapshot.manifest.media.relativePath;
}

MediaContainer MediaContainer::open(const ProjectSnapshot& snapshot, std::stop_token stopToken) {
  return open(moviePath(snapshot), std::move(stopToken));
}

MediaContainer MediaContainer::open(const std::filesystem::path& path, std::stop_token stopToken) {
  throwIfCancelled(stopToken);
  // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
  int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ELOOP) throw MediaContainerError(MediaContainerError::Case::notRegularFile);
    throwOpenFailure(path, errno);
  }
  auto state = std::make_unique<State>(path, fd, std::move(stopToken));
  struct stat status {};
  if (::fstat(fd, &status) != 0) throwOpenFailure(path, errno);
  if (!S_ISREG(status.st_mode)) throw MediaContainerError(MediaContainerError::Case::notRegularFile);
  // Reads of a regular file do not block anyway; plain reads keep EAGAIN out of the loop.
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);

  // A damaged or unusual movie is reported through the error thrown, not on standard error.
  av_log_set_level(AV_LOG_QUIET);
  auto* buffer = static_cast<std::uint8_t*>(av_malloc(ioBufferBytes));
  if (buffer == nullptr) throw std::bad_alloc();
  AVIOContext* io = avio_alloc_context(buffer, ioBufferBytes, 0, state.get(), &State::read, nullptr, &State::seek);
  if (io == nullptr) {
    av_free(buffer);
    throw std::bad_alloc();
  }
  state->io.reset(io);

  AVFormatContext* format = avformat_alloc_context();
  if (format == nullptr) throw std::bad_alloc();
  format->pb = io;
  format->flags |= AVFMT_FLAG_CUSTOM_IO;
  format->interrupt_callback = AVIOInterruptCB{&State::interrupted, state.get()};
  // avformat_open_input frees the context when it fails.
  int result = avformat_open_input(&format, nullptr, nullptr, nullptr);
  if (result < 0) {
    throwIfCancelled(state->stopToken);
    throw MediaContainerError(MediaContainerError::Case::cannotOpen,
                              "open: " + libavErrorText(result) + " (" + std::to_string(result) + ")");
  }
  state->format.reset(format);
  result = avformat_find_stream_info(format, nullptr);
  if (result < 0) {
    throwIfCancelled(state->stopToken);
    throw MediaContainerError(MediaContainerError::Case::cannotOpen,
                              "stream information: " + libavErrorText(result) + " (" + std::to_string(result) + ")");
  }
  throwIfCancelled(state->stopToken);
  return MediaContainer(std::move(state));
}

const std::filesystem::path& MediaContainer::path() const { return state_->path; }

std::int64_t MediaContainer::streamCount() const { return state_->format->nb_streams; }

AVFormatContext* MediaContainer::formatContext() const { return state_->format.get(); }

AVStream* MediaContainer::stream(std::int64_t index) const {
  return state_->format->streams[static_cast<std::size_t>(index)];
}

const std::stop_token& MediaContainer::stopToken() const { return state_->stopToken; }

MediaStreamType MediaContainer::streamType(std::int64_t index) const {
  const AVStream* s = stream(index);
  switch (s->codecpar->codec_type) {
    case AVMEDIA_TYPE_VIDEO:
      // A cover image is a video stream to libav, but no track of moving pictures.
      return (s->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0 ? MediaStreamType::other : MediaStreamType::video;
    case AVMEDIA_TYPE_AUDIO: return MediaStreamType::audio;
    default: return MediaStreamType::other;
  }
}

std::optional<std::int64_t> nanosecondsFromStreamTime(std::int64_t value, int timeBaseNumerator,
                                                      int timeBaseDenominator) {
  if (value == AV_NOPTS_VALUE || timeBaseNumerator <= 0 || timeBaseDenominator <= 0) return std::nullopt;
  std::int64_t ns =
      av_rescale_q_rnd(value, AVRational{timeBaseNumerator, timeBaseDenominator}, AVRational{1, 1'000'000'000},
                       static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
  // av_rescale answers INT64_MIN for a result it cannot represent.
  if (ns == INT64_MIN) return std::nullopt;
  return ns;
}

ProjectTimeRange MediaContainer::streamTimeRange(std::int64_t index) const {
  const AVStream* s = stream(index);
  std::int64_t start = nanosecondsFromStreamTime(s->start_time, s->time_base.num, s->time_base.den).value_or(0);
  std::optional<std::int64_t> duration = nanosecondsFromStreamTime(s->duration, s->time_base.num, s->time_base.den);
  // Some containers (Matroska) state no duration per stream, only one for the whole file.
  if (!duration) duration = nanosecondsFromStreamTime(state_->format->duration, 1, AV_TIME_BASE);
  return {ProjectTime{start}, ProjectTime{duration.value_or(0)}};
}

}  // namespace vumo
