#include "capture/cropped_video_stream.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "capture/pixel_buffer_pool.h"

namespace vumo {

namespace {

class CroppedVideoStream : public VideoCaptureStream {
 public:
  CroppedVideoStream(std::unique_ptr<VideoCaptureStream> source, const RectValue& area)
      : source_(std::move(source)),
        x_(int(area.x)),
        y_(int(area.y)),
        width_(int(area.width) & ~1),
        height_(int(area.height) & ~1) {}

  PixelSize pixelSize() const override { return {width_, height_}; }

  void start(std::function<void(const VideoFrame&)> onFrame, StreamStoppedHandler onStopped) override {
    source_->start([this, onFrame = std::move(onFrame)](const VideoFrame& frame) { onFrame(crop(frame)); },
                   std::move(onStopped));
  }

  void stop() override { source_->stop(); }
  std::int64_t missedTicks() const override { return source_->missedTicks(); }

 private:
  // On the source's delivering thread, one frame at a time.
  VideoFrame crop(const VideoFrame& frame) {
    VideoFrame cropped = frame;
    if (!frame.pixels) return cropped;
    if (frame.pixels == lastSource_ && lastCropped_) {
      cropped.pixels = lastCropped_;
      return cropped;
    }
    const PixelBuffer& from = *frame.pixels;
    std::shared_ptr<PixelBuffer> to = pool_.acquire(width_, height_);
    // A picture smaller than the area (a monitor that shrank) leaves the rest black.
    const int columns = std::clamp(from.width - x_, 0, width_);
    if (columns < width_ || from.height - y_ < height_) std::fill(to->bytes.begin(), to->bytes.end(), std::uint8_t(0));
    for (int row = 0; row < height_ && y_ + row < from.height; ++row) {
      if (columns == 0) break;
      std::memcpy(to->bytes.data() + std::size_t(row) * std::size_t(to->stride),
                  from.data() + std::size_t(y_ + row) * std::size_t(from.stride) + std::size_t(x_) * 4,
                  std::size_t(columns) * 4);
    }
    lastSource_ = frame.pixels;
    lastCropped_ = to;
    cropped.pixels = std::move(to);
    cropped.changed = true;
    return cropped;
  }

  std::unique_ptr<VideoCaptureStream> source_;
  int x_, y_, width_, height_;
  PixelBufferPool pool_{8};
  std::shared_ptr<const PixelBuffer> lastSource_;
  std::shared_ptr<const PixelBuffer> lastCropped_;
};

}  // namespace

std::unique_ptr<VideoCaptureStream> makeCroppedVideoStream(std::unique_ptr<VideoCaptureStream> source,
                                                           const RectValue& area) {
  return std::make_unique<CroppedVideoStream>(std::move(source), area);
}

}  // namespace vumo
