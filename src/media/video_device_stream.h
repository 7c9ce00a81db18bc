#pragma once

// Cameras and USB capture devices through V4L2, read with libavdevice: the list of capture devices
// and a `VideoCaptureStream` over one of them. Frames are converted to BGRA on the stream's own
// thread and stamped on the recording's host timebase (CLOCK_MONOTONIC): the kernel's capture time
// of the buffer where the driver gives a monotonic one (as UVC cameras do), converted where it
// gives wall-clock time, and the time the frame was read where it gives neither.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "capture/capture_streams.h"
#include "shared/error.h"
#include "shared/geometry.h"

namespace vumo {

struct VideoDeviceDescription {
  std::string deviceID;  // the device node, "/dev/video0"
  std::string name;      // the driver's name of the card
  std::string bus;       // where it is connected, "usb-0000:00:14.0-1"
  friend bool operator==(const VideoDeviceDescription&, const VideoDeviceDescription&) = default;
};

// The capture devices among the `video*` nodes of `folder`, in the order of their numbers. Nodes
// that are no V4L2 device, or only give metadata or output, are left out; a missing folder has none.
std::vector<VideoDeviceDescription> listVideoDevices(const std::filesystem::path& folder = "/dev");

struct VideoDeviceRequest {
  std::string deviceID;
  std::optional<PixelSize> size;  // the device's current size where absent
  std::optional<int> framesPerSecond;
  // libavdevice's input that reads `deviceID`. Anything but V4L2 (`lavfi` with a filter graph) is
  // for tests, which have no camera.
  std::string inputFormat = "video4linux2";
};

class VideoDeviceError : public Error {
 public:
  enum class Case { notFound, cannotOpen };
  // `detail`: the device for `notFound`; the device and libav's text for `cannotOpen`.
  VideoDeviceError(Case kind, std::string_view detail);
  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

// Opens the device (its size is known from then on); frames flow from `start`. Throws
// VideoDeviceError.
std::unique_ptr<VideoCaptureStream> makeVideoDeviceStream(const VideoDeviceRequest& request);

// A device's timestamp on the host timebase: kept when it lies within 10 s of `monotonicNow`,
// moved by the difference of the clocks when it lies within 10 s of `realtimeNow`, and otherwise
// (a driver's own counter) replaced by `monotonicNow`.
std::int64_t deviceTimestampOnHostTimebase(std::int64_t deviceNanoseconds, std::int64_t monotonicNow,
                                           std::int64_t realtimeNow);

}  // namespace vumo
