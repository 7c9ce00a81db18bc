#pragma once

#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "recording/recording_media_writing.h"

namespace vumo::testing {

// What a fake writer was given, kept after the session has dropped the writer.
struct FakeWriterLog {
  std::mutex mutex;
  std::optional<RecordingWriterConfiguration> configuration;
  std::vector<std::int64_t> videoTimes;
  std::vector<std::int64_t> videoFrameNumbers;  // the synthetic stream's numbers
  std::vector<std::pair<RecordingStreamType, std::int64_t>> audioTimes;
  std::vector<std::int64_t> webcamTimes;
  bool finished = false;
  bool cancelled = false;
  // Thrown by the appends of the video frames with these positions (0 for the first frame).
  std::vector<std::pair<std::size_t, std::exception_ptr>> videoFailures;
  std::int64_t writerDroppedVideoFrames = 0;
  // Runs on the capture thread before each video frame is taken, outside the log's lock.
  std::function<void()> beforeVideoAppend;

  std::vector<std::int64_t> video() {
    std::lock_guard guard(mutex);
    return videoTimes;
  }
  std::vector<std::pair<RecordingStreamType, std::int64_t>> audio() {
    std::lock_guard guard(mutex);
    return audioTimes;
  }
};

// Keeps times instead of encoding; `finish` answers as the real writer would for what it was given.
class FakeMediaWriter : public RecordingMediaWriting {
 public:
  FakeMediaWriter(std::shared_ptr<FakeWriterLog> log, std::filesystem::path movie)
      : log_(std::move(log)), movie_(std::move(movie)) {}

  void appendVideo(const VideoFrame& frame, std::int64_t output) override {
    if (log_->beforeVideoAppend) log_->beforeVideoAppend();
    std::lock_guard guard(log_->mutex);
    std::size_t position = attempts_++;
    for (const auto& [failing, error] : log_->videoFailures)
      if (failing == position) std::rethrow_exception(error);
    log_->videoTimes.push_back(output);
    std::int64_t number = 0;
    for (int i = 3; i >= 0; --i) number = (number << 8) | frame.pixels->data()[std::size_t(i)];
    log_->videoFrameNumbers.push_back(number);
  }
  void appendAudio(const AudioBuffer&, RecordingStreamType type, std::int64_t output) override {
    std::lock_guard guard(log_->mutex);
    // Audio never starts a file.
    if (log_->videoTimes.empty()) return;
    log_->audioTimes.emplace_back(type, output);
  }
  void appendWebcam(const VideoFrame&, std::int64_t output) override {
    std::lock_guard guard(log_->mutex);
    log_->webcamTimes.push_back(output);
  }
  RecordingWriterResult finish() override {
    std::lock_guard guard(log_->mutex);
    log_->finished = true;
    // A stand-in for the movie, so that the package is listed like a real one.
    std::ofstream(movie_, std::ios::binary) << "not a movie";
    RecordingWriterResult result;
    const auto& times = log_->videoTimes;
    if (!times.empty()) result.duration = ProjectTime{times.back() - times.front()};
    result.videoFrames = std::int64_t(times.size());
    result.droppedVideoFrames = log_->writerDroppedVideoFrames;
    for (const auto& [type, time] : log_->audioTimes)
      (type == RecordingStreamType::microphone ? result.microphoneSamples : result.systemAudioSamples) += 1;
    result.webcamFrames = std::int64_t(log_->webcamTimes.size());
    return result;
  }
  void cancel() override {
    std::lock_guard guard(log_->mutex);
    log_->cancelled = true;
  }
  std::string videoEncoderName() const override { return "fake-h264"; }

 private:
  std::shared_ptr<FakeWriterLog> log_;
  std::filesystem::path movie_;
  std::size_t attempts_ = 0;
};

}  // namespace vumo::testing
