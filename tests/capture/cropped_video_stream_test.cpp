#include "capture/cropped_video_stream.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "capture/synthetic_streams.h"

namespace vumo {
namespace {

// A picture whose pixel (x, y) holds x in its blue byte and y in its green byte.
std::shared_ptr<PixelBuffer> numbered(int width, int height) {
  auto buffer = std::make_shared<PixelBuffer>();
  buffer->width = width;
  buffer->height = height;
  buffer->stride = width * 4 + 8;  // rows with padding, as servers hand them
  buffer->bytes.assign(std::size_t(buffer->stride) * std::size_t(height), 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* pixel = buffer->bytes.data() + std::size_t(y) * std::size_t(buffer->stride) + std::size_t(x) * 4;
      pixel[0] = std::uint8_t(x);
      pixel[1] = std::uint8_t(y);
      pixel[3] = 255;
    }
  return buffer;
}

struct Crop {
  SyntheticVideoStream* source = nullptr;
  std::unique_ptr<VideoCaptureStream> stream;
  std::vector<VideoFrame> frames;

  explicit Crop(const RectValue& area) {
    auto synthetic = std::make_unique<SyntheticVideoStream>(PixelSize{8, 4}, 30);
    source = synthetic.get();
    stream = makeCroppedVideoStream(std::move(synthetic), area);
    stream->start([this](const VideoFrame& frame) { frames.push_back(frame); }, [](std::exception_ptr) {});
  }
  ~Crop() { stream->stop(); }

  void send(std::shared_ptr<const PixelBuffer> pixels, bool changed) {
    VideoFrame frame;
    frame.pixels = std::move(pixels);
    frame.changed = changed;
    frame.presentationNanoseconds = 1'000;
    source->emit(frame);
  }
};

std::pair<int, int> at(const VideoFrame& frame, int x, int y) {
  const PixelBuffer& p = *frame.pixels;
  const std::uint8_t* pixel = p.data() + std::size_t(y) * std::size_t(p.stride) + std::size_t(x) * 4;
  return {pixel[0], pixel[1]};
}

TEST(CroppedVideoStream, TakesTheAreaOfEachPictureAndRepeatsWithoutACopy) {
  Crop crop({2, 1, 4, 2});
  EXPECT_EQ(crop.stream->pixelSize(), (PixelSize{4, 2}));
  auto picture = numbered(8, 4);
  crop.send(picture, true);
  crop.send(picture, false);
  ASSERT_EQ(crop.frames.size(), 2u);
  EXPECT_EQ(crop.frames[0].pixels->width, 4);
  EXPECT_EQ(crop.frames[0].pixels->height, 2);
  EXPECT_EQ(at(crop.frames[0], 0, 0), std::make_pair(2, 1));
  EXPECT_EQ(at(crop.frames[0], 3, 1), std::make_pair(5, 2));
  // The repeat hands out the very same cropped picture.
  EXPECT_EQ(crop.frames[1].pixels, crop.frames[0].pixels);
  EXPECT_FALSE(crop.frames[1].changed);
}

TEST(CroppedVideoStream, APictureSmallerThanTheAreaLeavesTheRestBlack) {
  Crop crop({4, 2, 6, 2});  // an odd width is made even: 6
  crop.send(numbered(6, 3), true);
  ASSERT_EQ(crop.frames.size(), 1u);
  EXPECT_EQ(at(crop.frames[0], 0, 0), std::make_pair(4, 2));
  EXPECT_EQ(at(crop.frames[0], 1, 0), std::make_pair(5, 2));
  EXPECT_EQ(at(crop.frames[0], 2, 0), std::make_pair(0, 0));
  EXPECT_EQ(at(crop.frames[0], 0, 1), std::make_pair(0, 0));
}

}  // namespace
}  // namespace vumo
