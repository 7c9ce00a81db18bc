#pragma once

// The movie of one recording, written with FFmpeg as it happens: a fragmented QuickTime file
// (movie timescale 600) with the screen's H.264 track, then where enabled the camera's H.264 track,
// the system audio and the microphone (AAC, 48 kHz stereo, 192 kbit/s each), in that order.
//
// The calling thread only decides what is kept and counts; conversion, encoding and muxing run on
// one encoder thread of the writer's own behind bounded queues. A full video queue is a busy
// encoder: the frame is dropped and counted, the caller never waits. A fragment is closed after
// the first second of video and then every ten seconds and the file flushed, so a recording that
// is killed stays readable up to its last fragment.
//
// The screen track has a variable frame rate: a frame that repeats the previous one (unchanged, the
// same buffer) is not encoded, and each picture lasts until the next. A repeat still goes out when
// a second has passed since the last picture, or two since the last keyframe (then as a keyframe),
// and the last frame appended ends the track at its own time.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "recording/recording_media_writing.h"
#include "shared/error.h"

namespace vumo {

inline constexpr std::string_view recordingErrorsLocalizationTable = "RecordingErrors";

// A localised word or text the writer's errors are made of.
struct RecordingWriterText {
  std::string_view key;
  std::string_view englishText;
};
inline constexpr RecordingWriterText screenTrackName{"recording.error.track.screen", "screen"};
inline constexpr RecordingWriterText cameraTrackName{"recording.error.track.camera", "camera"};
inline constexpr RecordingWriterText systemAudioTrackName{"recording.error.track.systemAudio", "system audio"};
inline constexpr RecordingWriterText microphoneTrackName{"recording.error.track.microphone", "microphone"};
inline constexpr RecordingWriterText unknownWriterError{"recording.error.unknown", "Unknown error"};
inline constexpr RecordingWriterText screenFrameRejected{"recording.error.screenFrameRejected",
                                                         "Screen frame rejected"};
inline constexpr RecordingWriterText cameraFirstFrameFailed{"recording.error.cameraFirstFrame",
                                                            "Unable to write the initial camera frame"};
inline constexpr RecordingWriterText cameraFrameRejected{"recording.error.cameraFrameRejected",
                                                         "Camera frame rejected"};
// Followed by the number of the state the writer was left in.
inline constexpr RecordingWriterText writerStatusText{"recording.error.writerStatus", "Writer status: "};

class RecordingMediaWriterError : public Error {
 public:
  enum class Case { cannotAddInput, startFailed, appendFailed, finishFailed };

  // `payload`: the track's name for `cannotAddInput`, the writer's text for the others.
  RecordingMediaWriterError(Case kind, std::string_view payload);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

class RecordingMediaWriter final : public RecordingMediaWriting {
 public:
  // Frames the encoder thread may have waiting: at 60 fps three frames are 50 ms of jitter taken
  // up, and they pin three capture buffers (about 100 MB at 4K), which is as much as a recording
  // should hold back from its source. More would only delay the drop a stalled encoder needs.
  static constexpr std::size_t videoQueueCapacity = 3;
  static constexpr std::size_t webcamQueueCapacity = 3;
  // Audio is never dropped in normal operation: each track may hold two seconds of buffers
  // (at the usual 10 ms a buffer) while the encoder thread is busy with a picture.
  static constexpr std::size_t audioQueueCapacity = 200;

  // Removes a file at `configuration.url` (a failure is thrown as FileError) and opens the
  // encoders; a track whose encoder or stream cannot be made fails with `cannotAddInput`. The file
  // itself is started by the first screen frame.
  explicit RecordingMediaWriter(const RecordingWriterConfiguration& configuration);
  ~RecordingMediaWriter() override;
  RecordingMediaWriter(const RecordingMediaWriter&) = delete;
  RecordingMediaWriter& operator=(const RecordingMediaWriter&) = delete;

  void appendVideo(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) override;
  void appendAudio(const AudioBuffer& buffer, RecordingStreamType type,
                   std::int64_t outputPresentationNanoseconds) override;
  void appendWebcam(const VideoFrame& frame, std::int64_t outputPresentationNanoseconds) override;
  RecordingWriterResult finish() override;
  void cancel() override;
  std::string videoEncoderName() const override;

  // Test seam: holds the encoder thread before it takes the next item until released, so that a
  // test can fill the queues deterministically.
  void holdEncoderForTesting(bool held);
  // Test seam: returns once the encoder thread has written everything queued so far.
  void waitUntilEncodedForTesting();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vumo
