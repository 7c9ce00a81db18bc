#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "capture/capture_streams.h"

namespace vumo {

// The pictures of one stream: a buffer is written again only once nobody else holds it (the
// writer's queue, a frame being repeated), so a steady stream allocates nothing per frame. Beyond
// `capacity` buffers in use, new ones are made and let go instead of kept. One thread at a time.
class PixelBufferPool {
 public:
  explicit PixelBufferPool(std::size_t capacity) : capacity_(capacity) {}

  // A buffer of `width` x `height` BGRA pixels with rows of `width * 4` bytes, its content
  // undefined.
  std::shared_ptr<PixelBuffer> acquire(int width, int height) {
    std::shared_ptr<PixelBuffer> buffer;
    for (const auto& candidate : pool_)
      if (candidate.use_count() == 1) {
        buffer = candidate;
        break;
      }
    if (!buffer) {
      buffer = std::make_shared<PixelBuffer>();
      if (pool_.size() < capacity_) pool_.push_back(buffer);
    }
    buffer->width = width;
    buffer->height = height;
    buffer->stride = width * 4;
    buffer->bytes.resize(std::size_t(buffer->stride) * std::size_t(height));
    return buffer;
  }

 private:
  std::size_t capacity_;
  std::vector<std::shared_ptr<PixelBuffer>> pool_;
};

}  // namespace vumo
