#pragma once

// The pictures of one video track of a composition plan (screen or camera) on the sequence
// timeline: for a sequence time, the decoded source frame shown then. The player, the frame output
// and the export read pictures only through this.

#include <array>
#include <cstdint>
#include <memory>
#include <optional>

#include "media/media_container.h"
#include "media/media_errors.h"
#include "media/timeline_composition.h"
#include "shared/project_time.h"

struct AVFrame;

namespace vumo {

// The two layouts the renderer uploads as planes. A decoder's other formats are converted once,
// into yuv420p, by libswscale.
enum class VideoPixelLayout {
  yuv420p,  // planes: Y, U, V; chroma at half width and height, rounded up
  nv12,     // planes: Y, interleaved UV; chroma at half width and height, rounded up
};

enum class VideoColorRange { limited, full };

// How Y'CbCr turns into R'G'B'. A stream that does not say is taken as BT.709.
enum class VideoColorMatrix { bt709, bt601, bt2020 };

// One decoded picture. The planes belong to `frame`, which the value shares, so they stay valid
// for as long as any copy lives, whatever the reader decodes next. Read-only.
struct DecodedVideoFrame {
  int width = 0;
  int height = 0;
  VideoPixelLayout layout = VideoPixelLayout::yuv420p;
  int planeCount = 0;                           // 3 for yuv420p, 2 for nv12
  std::array<const std::uint8_t*, 3> planes{};  // the unused ones null
  std::array<int, 3> strides{};                 // bytes from one row to the next, per plane
  VideoColorRange range = VideoColorRange::limited;
  VideoColorMatrix matrix = VideoColorMatrix::bt709;
  ProjectTime sourceTime;    // the frame's presentation time in the movie
  ProjectTime sequenceTime;  // the time it was asked for
  std::shared_ptr<const AVFrame> frame;
};

// Decodes forward while the requested times increase; a time behind the frame it holds, or past a
// keyframe beyond the next frame, seeks to the keyframe at or before it and decodes from there.
//
// Not copyable; use from one thread at a time. The container's stop token ends a decode
// (CancelledError).
class SequenceVideoReader {
 public:
  // `track` is the plan's screen or camera track, whose stream must be video in `container`.
  // Throws SequenceReaderError::unsupportedStream for a stream that is not decodable video.
  SequenceVideoReader(MediaContainer container, CompositionTrack track);
  SequenceVideoReader(SequenceVideoReader&&) noexcept;
  SequenceVideoReader& operator=(SequenceVideoReader&&) noexcept;
  ~SequenceVideoReader();

  // The frame shown at `sequenceTime`: with the piece covering it, the source time is
  // clipStart + (sequenceTime − sequenceStart) × rate / 1000 (rounded down, within the piece's
  // source range), and the frame is the one whose presentation interval holds that source time (the
  // first frame for a time before it, the last for one after it). None in a hole of the track and
  // outside the sequence. Throws SequenceReaderError (decodingFailed, conversionFailed) or
  // CancelledError.
  std::optional<DecodedVideoFrame> frameAt(ProjectTime sequenceTime);

  // How often the reader has jumped (seeking, then decoding up to the time) instead of decoding
  // forward: for tests and measurements of access patterns.
  std::int64_t seekCount() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
