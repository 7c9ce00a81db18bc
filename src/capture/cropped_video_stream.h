#pragma once

#include <memory>

#include "capture/capture_streams.h"

namespace vumo {

// A rectangle of another stream's pictures, in its pixels (whole pixels, the size even): an area of a monitor where the
// source itself can only give the whole monitor (a screen cast). A repeated frame repeats the cropped picture without a
// copy; buffers nobody holds any more are reused.
std::unique_ptr<VideoCaptureStream> makeCroppedVideoStream(std::unique_ptr<VideoCaptureStream> source,
                                                           const RectValue& area);

}  // namespace vumo
