#include "recording/screen_recording_session.h"

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <fstream>
#include <future>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>

#include "project/chunk_reader.h"
#include "project/chunk_store.h"
#include "project/cursor_asset_store.h"
#include "project/file_lock.h"
#include "project/project_store.h"
#include "project/serial_work_queue.h"
#include "recording/cursor_shape_recorder.h"
#include "recording/mouse_event_recorder.h"
#include "recording/recording_clock.h"
#include "recording/recording_errors.h"
#include "shared/checked_math.h"
#include "timeline/initial_timeline.h"

namespace vumo {

namespace {

std::string errorText(const std::exception_ptr& error) {
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "Unknown error";
  }
}

// The peak resident set of this process, from the kernel's own accounting.
std::optional<std::uint64_t> peakResidentMemoryBytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) != 0) continue;
    try {
      return std::uint64_t(std::stoull(line.substr(6))) * 1024u;
    } catch (...) {
      return std::nullopt;
    }
  }
  return std::nullopt;
}

// One frame interval at `framesPerSecond`, rounded half away from zero as a time conversion would.
std::int64_t frameIntervalNanoseconds(std::int64_t framesPerSecond) {
  std::int64_t rate = std::max<std::int64_t>(framesPerSecond, 1);
  return (1'000'000'000 + rate / 2) / rate;
}

// The loudest sample of a buffer, 0...1.
std::optional<double> normalizedLevel(const AudioBuffer& buffer) {
  if (buffer.samples.empty()) return std::nullopt;
  float peak = 0;
  for (float sample : buffer.samples)
    if (std::isfinite(sample)) peak = std::max(peak, std::fabs(sample));
  return std::min(1.0, double(peak));
}

// Sleeps for `interval` unless a stop is requested first; false once it is.
bool sleepFor(std::chrono::milliseconds interval, std::stop_token stop) {
  std::mutex mutex;
  std::condition_variable_any wake;
  std::unique_lock lock(mutex);
  wake.wait_for(lock, stop, interval, [] { return false; });
  return !stop.stop_requested();
}

ProjectTime mouseEventTime(const MouseEvent& event) { return event.time; }
ProjectTime geometryTime(const GeometrySample& sample) { return sample.time; }
ProjectTime cursorTime(const CursorShapeSample& sample) { return sample.time; }

}  // namespace

// Everything of a recording session. A device source differs only in its geometry and in having
// no pointer of its own.
class RecordingSessionCore {
 public:
  RecordingSessionCore(ProjectStore& store, CreatedProject project, RecordingCaptureStreams streams,
                       const RecordingMediaWriterFactory& writerFactory, RecordingSessionSettings settings);
  ~RecordingSessionCore();

  void start();
  void pause();
  void resume();
  RecordingSessionResult stop();
  void discard();
  void fail(const std::string& reason) noexcept;

  void setWebcamOverlay(const std::optional<WebcamOverlay>& overlay) {
    std::lock_guard guard(webcamOverlayLock_);
    webcamOverlay_ = overlay;
  }
  RecordingLiveStatus liveStatus() const {
    std::lock_guard guard(liveStatusLock_);
    return liveStatus_;
  }
  bool hasFirstFrame() const { return clock_.isStarted(); }
  std::int64_t framesHandedOver() const { return framesHandedOver_.load(std::memory_order_relaxed); }
  RecordingMetrics metrics() const {
    std::lock_guard guard(metricsLock_);
    return metrics_;
  }
  std::vector<std::string> diagnosticNotes() const {
    std::lock_guard guard(metricsLock_);
    return diagnosticNotes_;
  }
  const ProjectPackage& package() const { return package_; }
  void drainCaptureQueue() { captureQueue_.waitUntilIdle(); }

 private:
  struct ScreenTiming {
    std::int64_t outputPTS = 0;
    bool didStart = false;
    bool didResume = false;
  };

  // Capture thread.
  void post(std::function<void()> job);
  // Hands a frame to the capture thread unless `pending` frames already wait there: a stalled
  // writer shows up as counted drops, never as a blocked stream or a growing queue.
  void postFrame(std::atomic<std::size_t>& pending, const VideoFrame& frame, void (RecordingSessionCore::*drop)(),
                 void (RecordingSessionCore::*process)(const VideoFrame&));
  void runOnCaptureQueue(std::function<void()> job);
  std::optional<ScreenTiming> outputScreenTiming(std::int64_t inputPTS, std::uint64_t displayTime);
  void processScreen(const VideoFrame& frame);
  void processAudio(const AudioBuffer& buffer, RecordingStreamType type);
  void processWebcam(const VideoFrame& frame);
  GeometryFrameMetadata geometryMetadata(const VideoFrame& frame, ProjectTime time);
  void updateMicrophoneLevel(const AudioBuffer& buffer);
  void updatePeakMemory();

  // Any thread.
  void reportFatalError(std::exception_ptr error);
  void addNote(std::string note);
  void countDroppedVideoFrame();
  void countDroppedWebcamFrame();
  void handleWebcamInterruption(std::exception_ptr error);
  void publishStatus(const std::function<void(RecordingLiveStatus&)>& change, bool immediately);

  // Owner's thread.
  void startStreams();
  void stopPointerAndTasks() noexcept;
  void stopCameraQuietly() noexcept;
  void stopCaptureStreams(bool rethrow);

  ProjectStore& store_;
  ProjectPackage package_;
  ProjectManifest manifest_;
  // Held for the session's whole life: recovery in another process skips the package meanwhile.
  RecordingPackageLock recordingLock_;
  CaptureSourceDescriptor source_;
  RecordingOptions options_;
  bool deviceSource_;
  RecordingSessionSettings settings_;
  RecordingCaptureStreams streams_;
  RecordingControlRegionStore& controlRegionStore_;

  RecordingClock clock_;
  std::atomic<std::int64_t> framesHandedOver_{0};
  GeometryTracker geometryTracker_;
  ChunkStore<MouseEvent> eventStore_;
  ChunkStore<GeometrySample> geometryStore_;
  ChunkStore<CursorShapeSample> cursorShapeStore_;
  CursorAssetStore cursorAssetStore_;
  std::unique_ptr<RecordingMediaWriting> mediaWriter_;

  mutable std::mutex webcamOverlayLock_;
  std::optional<WebcamOverlay> webcamOverlay_;

  mutable std::mutex metricsLock_;
  RecordingMetrics metrics_;
  std::exception_ptr streamError_;
  bool hasReportedFatalError_ = false;
  std::vector<std::string> diagnosticNotes_;

  mutable std::mutex liveStatusLock_;
  RecordingLiveStatus liveStatus_;
  RecordingLiveStatusThrottle statusThrottle_;
  RecordingLiveStatusThrottle meterThrottle_;

  std::unique_ptr<MouseEventRecorder> mouseRecorder_;
  std::unique_ptr<CursorShapeRecorder> cursorRecorder_;
  std::jthread cursorShapeTask_;
  std::jthread areaMonitorTask_;
  bool started_ = false;
  bool streamsRunning_ = false;
  bool cameraRunning_ = false;
  bool ended_ = false;

  // Capture thread only.
  RecordingTransportState transportState_ = RecordingTransportState::recording;
  std::int64_t sourceTimeOffset_ = 0;
  std::optional<std::int64_t> lastOutputScreenPTS_;
  std::int64_t pauseCount_ = 0;
  RectValue lastKnownGlobalFrame_;
  std::optional<std::int64_t> lastGeometryProbeNanoseconds_;

  std::atomic<std::size_t> pendingFrames_{0};
  std::atomic<std::size_t> pendingWebcamFrames_{0};
  // Last: stopped first, so queued work finishes while everything it touches is alive.
  SerialWorkQueue captureQueue_;
};

RecordingSessionCore::RecordingSessionCore(ProjectStore& store, CreatedProject project, RecordingCaptureStreams streams,
                                           const RecordingMediaWriterFactory& writerFactory,
                                           RecordingSessionSettings settings)
    : store_(store),
      package_(std::move(project.package)),
      manifest_(std::move(project.manifest)),
      recordingLock_(package_.rootPath),
      source_(manifest_.source),
      options_(manifest_.options),
      deviceSource_(source_.kind == CaptureSourceKind::device),
      settings_(std::move(settings)),
      streams_(std::move(streams)),
      controlRegionStore_(settings_.controlRegionStore ? *settings_.controlRegionStore
                                                       : RecordingControlRegionStore::shared()),
      geometryTracker_(source_.initialPixelSize, source_.globalFrame,
                       SizeValue{double(source_.initialPixelSize.width), double(source_.initialPixelSize.height)}),
      eventStore_(package_.mouseEventsDirectory(), standardChunkMaximumCount, standardChunkMaximumSpan, mouseEventTime),
      geometryStore_(package_.geometryDirectory(), standardChunkMaximumCount, standardChunkMaximumSpan, geometryTime),
      cursorShapeStore_(package_.cursorEventsDirectory(), standardChunkMaximumCount, standardChunkMaximumSpan,
                        cursorTime),
      cursorAssetStore_(package_.cursorAssetsDirectory()),
      webcamOverlay_(settings_.webcamOverlay),
      diagnosticNotes_(settings_.notes),
      lastKnownGlobalFrame_(source_.globalFrame) {
  if (!streams_.video) throw std::invalid_argument("a recording needs a video stream");
  if (!streams_.camera) streams_.cameraConfiguration.reset();
  if (!streams_.cameraConfiguration) streams_.camera.reset();

  RecordingWriterConfiguration configuration;
  configuration.url = package_.mediaPath();
  configuration.size = manifest_.encodedPixelSize;
  configuration.framesPerSecond = int(std::clamp<std::int64_t>(options_.framesPerSecond, 1, 1000));
  configuration.capturesSystemAudio = options_.capturesSystemAudio;
  configuration.capturesMicrophone = options_.capturesMicrophone;
  configuration.webcam = streams_.cameraConfiguration;
  configuration.encoderPreference = settings_.encoderPreference;
  mediaWriter_ = writerFactory(configuration);
  if (!mediaWriter_) throw std::invalid_argument("the writer factory gave no writer");

  metrics_.timeDiscontinuities = 0;
  if (streams_.camera) {
    metrics_.droppedWebcamFrames = 0;
    metrics_.webcamInterruptions = 0;
  }
  liveStatus_.transportState = RecordingTransportState::recording;
  if (options_.capturesMicrophone) liveStatus_.microphoneLevel = 0.0;
  liveStatus_.webcamState = streams_.camera ? RecordingWebcamState::active : RecordingWebcamState::disabled;
}

RecordingSessionCore::~RecordingSessionCore() {
  // A session dropped without stop, discard or fail leaves the package as a crash would.
  if (!ended_) {
    stopPointerAndTasks();
    try {
      stopCaptureStreams(false);
    } catch (...) {
    }
    stopCameraQuietly();
  }
  captureQueue_.waitUntilIdle();
}

// ---- Capture thread ---------------------------------------------------------------------------

void RecordingSessionCore::post(std::function<void()> job) {
  captureQueue_.enqueue([this, job = std::move(job)]() noexcept {
    try {
      job();
    } catch (...) {
      reportFatalError(std::current_exception());
    }
  });
}

void RecordingSessionCore::runOnCaptureQueue(std::function<void()> job) {
  std::promise<void> done;
  std::future<void> finished = done.get_future();
  captureQueue_.enqueue([&job, &done]() noexcept {
    try {
      job();
      done.set_value();
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  finished.get();
}

std::optional<RecordingSessionCore::ScreenTiming> RecordingSessionCore::outputScreenTiming(std::int64_t inputPTS,
                                                                                           std::uint64_t displayTime) {
  ScreenTiming timing;
  if (transportState_ == RecordingTransportState::recording) {
    if (!trySub(inputPTS, sourceTimeOffset_, timing.outputPTS))
      throw ScreenRecordingSessionError(ScreenRecordingSessionError::Case::sampleRetimingFailed);
    if (!clock_.isStarted()) {
      clock_.start(timing.outputPTS, displayTime);
      timing.didStart = true;
    }
    return timing;
  }
  if (transportState_ != RecordingTransportState::resuming) return std::nullopt;

  bool computed = lastOutputScreenPTS_ ? tryAdd(*lastOutputScreenPTS_,
                                                frameIntervalNanoseconds(options_.framesPerSecond), timing.outputPTS)
                                       : trySub(inputPTS, sourceTimeOffset_, timing.outputPTS);
  std::int64_t offset = 0;
  if (!computed || !trySub(inputPTS, timing.outputPTS, offset))
    throw ScreenRecordingSessionError(ScreenRecordingSessionError::Case::sampleRetimingFailed);
  // From now on the offset holds all the paused time.
  sourceTimeOffset_ = offset;
  transportState_ = RecordingTransportState::recording;
  if (clock_.isStarted()) {
    clock_.resume(timing.outputPTS, displayTime);
  } else {
    clock_.start(timing.outputPTS, displayTime);
    timing.didStart = true;
  }
  timing.didResume = true;
  publishStatus([](RecordingLiveStatus& status) { status.transportState = RecordingTransportState::recording; }, true);
  return timing;
}

GeometryFrameMetadata RecordingSessionCore::geometryMetadata(const VideoFrame& frame, ProjectTime time) {
  GeometryFrameMetadata metadata = frame.metadata;
  if (deviceSource_) {
    PixelSize size = streams_.video->pixelSize();
    RectValue whole{0, 0, double(size.width), double(size.height)};
    return GeometryFrameMetadata{whole, whole, 1.0};
  }
  if (source_.kind == CaptureSourceKind::window) {
    std::int64_t since = 0;
    bool due = !lastGeometryProbeNanoseconds_ || !trySub(time.nanoseconds, *lastGeometryProbeNanoseconds_, since) ||
               since >= 100'000'000;
    if (due) {
      if (settings_.windowFrameProbe) {
        // A closed window keeps the frame it had last.
        if (std::optional<RectValue> found = settings_.windowFrameProbe()) lastKnownGlobalFrame_ = *found;
      }
      lastGeometryProbeNanoseconds_ = time.nanoseconds;
    }
    metadata.globalFrame = lastKnownGlobalFrame_;
  }
  if (source_.areaSourceRect) {
    metadata.globalFrame = source_.globalFrame;
    metadata.contentRect = RectValue{0, 0, source_.globalFrame.width, source_.globalFrame.height};
    if (source_.pointPixelScale) metadata.scaleFactor = *source_.pointPixelScale;
  }
  return metadata;
}

void RecordingSessionCore::processScreen(const VideoFrame& frame) {
  // Blank and unchanged-but-unreadable frames have no pixels: counted, and the recording goes on.
  if (!frame.pixels || frame.pixels->size() == 0) {
    countDroppedVideoFrame();
    return;
  }
  std::optional<ScreenTiming> timing = outputScreenTiming(frame.presentationNanoseconds, frame.displayTimeNanoseconds);
  if (!timing) return;
  if (timing->didStart) {
    updatePeakMemory();
  } else if (!timing->didResume && clock_.observe(timing->outputPTS, frame.displayTimeNanoseconds)) {
    std::lock_guard guard(metricsLock_);
    metrics_.timeDiscontinuities = metrics_.timeDiscontinuities.value_or(0) + 1;
  }
  std::optional<ProjectTime> time = clock_.projectTimeForVideoPTS(timing->outputPTS);
  if (!time) return;
  if (std::optional<ClockAnchor> anchor =
          clock_.recordDiagnosticAnchor(timing->outputPTS, frame.displayTimeNanoseconds)) {
    {
      std::lock_guard guard(metricsLock_);
      std::int64_t offset = anchor->offsetNanoseconds;
      std::int64_t magnitude = offset == std::numeric_limits<std::int64_t>::min()
                                   ? std::numeric_limits<std::int64_t>::max()
                                   : (offset < 0 ? -offset : offset);
      metrics_.maximumClockOffsetNanoseconds = std::max(metrics_.maximumClockOffsetNanoseconds, magnitude);
    }
    updatePeakMemory();
  }

  if (std::optional<GeometrySample> sample = geometryTracker_.update(*time, geometryMetadata(frame, *time))) {
    geometryStore_.append(*sample);
    std::lock_guard guard(metricsLock_);
    metrics_.geometryRevisions += 1;
  }
  eventStore_.commitIfDue(*time);
  geometryStore_.commitIfDue(*time);
  cursorShapeStore_.commitIfDue(*time);

  // Retiming hands the writer the output time; the pixels are never copied.
  mediaWriter_->appendVideo(frame, timing->outputPTS);
  framesHandedOver_.fetch_add(1, std::memory_order_relaxed);
  lastOutputScreenPTS_ = timing->outputPTS;

  ProjectTime elapsed = *time;
  publishStatus([elapsed](RecordingLiveStatus& status) { status.elapsed = elapsed; }, false);
}

void RecordingSessionCore::processAudio(const AudioBuffer& buffer, RecordingStreamType type) {
  // Audio before the first frame, while paused and while resuming has no place on the timeline.
  if (transportState_ != RecordingTransportState::recording || !clock_.isStarted()) return;
  std::int64_t host = std::int64_t(
      std::min<std::uint64_t>(buffer.hostTimeNanoseconds, std::uint64_t(std::numeric_limits<std::int64_t>::max())));
  std::int64_t output = 0;
  if (!trySub(host, sourceTimeOffset_, output)) return;
  mediaWriter_->appendAudio(buffer, type, output);
  if (type == RecordingStreamType::microphone) updateMicrophoneLevel(buffer);
}

void RecordingSessionCore::processWebcam(const VideoFrame& frame) {
  if (!frame.pixels || frame.pixels->size() == 0 || frame.presentationNanoseconds < 0) {
    countDroppedWebcamFrame();
    return;
  }
  std::optional<ProjectTime> time =
      clock_.projectTimeForHostTimeNanoseconds(std::uint64_t(frame.presentationNanoseconds));
  if (!time || time->nanoseconds < 0) {
    countDroppedWebcamFrame();
    return;
  }
  VideoTimestamp pts = clock_.videoPTS(*time);
  if (!pts) {
    countDroppedWebcamFrame();
    return;
  }
  try {
    mediaWriter_->appendWebcam(frame, *pts);
  } catch (...) {
    reportFatalError(std::current_exception());
  }
}

void RecordingSessionCore::updateMicrophoneLevel(const AudioBuffer& buffer) {
  std::optional<double> level;
  {
    std::lock_guard guard(liveStatusLock_);
    if (!meterThrottle_.shouldPublish(monotonicNanoseconds())) return;
  }
  level = normalizedLevel(buffer);
  if (!level) return;
  publishStatus([level](RecordingLiveStatus& status) { status.microphoneLevel = level; }, false);
}

void RecordingSessionCore::updatePeakMemory() {
  std::optional<std::uint64_t> peak = peakResidentMemoryBytes();
  if (!peak) return;
  std::lock_guard guard(metricsLock_);
  metrics_.peakResidentMemoryBytes = std::max(metrics_.peakResidentMemoryBytes.value_or(0), *peak);
}

// ---- Any thread -------------------------------------------------------------------------------

void RecordingSessionCore::reportFatalError(std::exception_ptr error) {
  bool first = false;
  {
    std::lock_guard guard(metricsLock_);
    streamError_ = error;  // the latest one is what stop throws
    if (!hasReportedFatalError_) first = hasReportedFatalError_ = true;
  }
  if (first && settings_.failureHandler) settings_.failureHandler(errorText(error));
}

void RecordingSessionCore::addNote(std::string note) {
  std::lock_guard guard(metricsLock_);
  diagnosticNotes_.push_back(std::move(note));
}

void RecordingSessionCore::countDroppedVideoFrame() {
  std::lock_guard guard(metricsLock_);
  metrics_.droppedVideoFrames += 1;
}

void RecordingSessionCore::countDroppedWebcamFrame() {
  std::lock_guard guard(metricsLock_);
  metrics_.droppedWebcamFrames = metrics_.droppedWebcamFrames.value_or(0) + 1;
}

void RecordingSessionCore::handleWebcamInterruption(std::exception_ptr error) {
  {
    std::lock_guard guard(metricsLock_);
    metrics_.webcamInterruptions = metrics_.webcamInterruptions.value_or(0) + 1;
    diagnosticNotes_.push_back(error ? errorText(error) : std::string("Camera stopped"));
  }
  publishStatus([](RecordingLiveStatus& status) { status.webcamState = RecordingWebcamState::interrupted; }, true);
}

void RecordingSessionCore::publishStatus(const std::function<void(RecordingLiveStatus&)>& change, bool immediately) {
  std::optional<RecordingLiveStatus> published;
  {
    std::lock_guard guard(liveStatusLock_);
    change(liveStatus_);
    if (immediately || statusThrottle_.shouldPublish(monotonicNanoseconds())) published = liveStatus_;
  }
  if (published && settings_.liveStatusHandler) settings_.liveStatusHandler(*published);
}

// ---- Owner's thread ---------------------------------------------------------------------------

void RecordingSessionCore::postFrame(std::atomic<std::size_t>& pending, const VideoFrame& frame,
                                     void (RecordingSessionCore::*drop)(),
                                     void (RecordingSessionCore::*process)(const VideoFrame&)) {
  if (pending.fetch_add(1) >= settings_.maximumPendingFrames) {
    pending.fetch_sub(1);
    (this->*drop)();
    return;
  }
  post([this, &pending, frame, process] {
    pending.fetch_sub(1);
    (this->*process)(frame);
  });
}

void RecordingSessionCore::startStreams() {
  if (streams_.camera) {
    streams_.camera->start(
        [this](const VideoFrame& frame) {
          postFrame(pendingWebcamFrames_, frame, &RecordingSessionCore::countDroppedWebcamFrame,
                    &RecordingSessionCore::processWebcam);
        },
        [this](std::exception_ptr error) { handleWebcamInterruption(error); });
    cameraRunning_ = true;
  }
  try {
    auto onStopped = [this](std::exception_ptr error) {
      if (error) reportFatalError(error);
    };
    streams_.video->start(
        [this](const VideoFrame& frame) {
          postFrame(pendingFrames_, frame, &RecordingSessionCore::countDroppedVideoFrame,
                    &RecordingSessionCore::processScreen);
        },
        onStopped);
    streamsRunning_ = true;
    if (streams_.systemAudio)
      streams_.systemAudio->start(
          [this](const AudioBuffer& buffer) {
            post([this, buffer] { processAudio(buffer, RecordingStreamType::systemAudio); });
          },
          onStopped);
    if (streams_.microphone)
      streams_.microphone->start(
          [this](const AudioBuffer& buffer) {
            post([this, buffer] { processAudio(buffer, RecordingStreamType::microphone); });
          },
          onStopped);
  } catch (...) {
    stopCameraQuietly();
    try {
      stopCaptureStreams(false);
    } catch (...) {
    }
    throw;
  }
}

void RecordingSessionCore::start() {
  if (started_) throw std::logic_error("a recording session starts once");
  started_ = true;
  startStreams();
  // A device has no pointer of ours: whatever pointer streams came along stay unused.
  if (streams_.pointer && !deviceSource_) {
    auto recorder = std::make_unique<MouseEventRecorder>(*streams_.pointer, clock_, geometryTracker_,
                                                         controlRegionStore_, [this](const MouseEvent& event) {
                                                           try {
                                                             eventStore_.append(event);
                                                           } catch (...) {
                                                             // Latched by the store; the next frame's commit check
                                                             // raises it.
                                                           }
                                                           std::lock_guard guard(metricsLock_);
                                                           metrics_.mouseEvents += 1;
                                                         });
    try {
      recorder->start();
    } catch (...) {
      stopCameraQuietly();
      try {
        stopCaptureStreams(false);
      } catch (...) {
      }
      throw;
    }
    mouseRecorder_ = std::move(recorder);
  }
  if (streams_.cursorShapes && !deviceSource_) {
    cursorRecorder_ = std::make_unique<CursorShapeRecorder>(
        *streams_.cursorShapes, cursorAssetStore_, cursorShapeStore_,
        [this](const std::string& note) { addNote(note); },
        [this](std::exception_ptr error) { reportFatalError(error); });
    cursorShapeTask_ = std::jthread([this](std::stop_token stop) {
      while (!stop.stop_requested()) {
        std::optional<ProjectTime> t = clock_.projectTimeForHostTimeNanoseconds(monotonicNanoseconds());
        if (t && t->nanoseconds >= 0) cursorRecorder_->recordCursorShape(*t);
        if (!sleepFor(settings_.cursorProbeInterval, stop)) break;
      }
    });
  }
  if (source_.areaSourceRect && settings_.areaSourceCheck) {
    areaMonitorTask_ = std::jthread([this](std::stop_token stop) {
      while (!stop.stop_requested()) {
        try {
          if (!settings_.areaSourceCheck())
            reportFatalError(std::make_exception_ptr(
                ScreenRecordingSessionError(ScreenRecordingSessionError::Case::sourceRectBecameInvalid)));
        } catch (...) {
          reportFatalError(std::current_exception());
        }
        if (!sleepFor(settings_.areaCheckInterval, stop)) break;
      }
    });
  }
}

void RecordingSessionCore::pause() {
  runOnCaptureQueue([this] {
    if (transportState_ != RecordingTransportState::recording) return;
    transportState_ = RecordingTransportState::paused;
    pauseCount_ += 1;
    clock_.pause();
    publishStatus(
        [](RecordingLiveStatus& status) {
          status.transportState = RecordingTransportState::paused;
          status.microphoneLevel.reset();
        },
        true);
  });
}

void RecordingSessionCore::resume() {
  // The next frame finishes the resume: the streams run on through a pause.
  runOnCaptureQueue([this] {
    if (transportState_ != RecordingTransportState::paused) return;
    transportState_ = RecordingTransportState::resuming;
    publishStatus([](RecordingLiveStatus& status) { status.transportState = RecordingTransportState::resuming; }, true);
  });
}

void RecordingSessionCore::stopPointerAndTasks() noexcept {
  if (mouseRecorder_) mouseRecorder_->stop();
  if (cursorShapeTask_.joinable()) {
    cursorShapeTask_.request_stop();
    cursorShapeTask_.join();
  }
  if (areaMonitorTask_.joinable()) {
    areaMonitorTask_.request_stop();
    areaMonitorTask_.join();
  }
  mouseRecorder_.reset();
}

void RecordingSessionCore::stopCameraQuietly() noexcept {
  if (!cameraRunning_) return;
  cameraRunning_ = false;
  try {
    streams_.camera->stop();
  } catch (...) {
  }
}

void RecordingSessionCore::stopCaptureStreams(bool rethrow) {
  if (!streamsRunning_) return;
  streamsRunning_ = false;
  std::exception_ptr first;
  for (auto* audio : {streams_.systemAudio.get(), streams_.microphone.get()}) {
    if (!audio) continue;
    try {
      audio->stop();
    } catch (...) {
      if (!first) first = std::current_exception();
    }
  }
  try {
    streams_.video->stop();
  } catch (...) {
    if (!first) first = std::current_exception();
  }
  if (first && rethrow) std::rethrow_exception(first);
}

RecordingSessionResult RecordingSessionCore::stop() {
  runOnCaptureQueue([this] {
    transportState_ = RecordingTransportState::stopping;
    clock_.pause();
  });
  ended_ = true;
  stopPointerAndTasks();
  stopCaptureStreams(true);
  captureQueue_.waitUntilIdle();
  {
    std::lock_guard guard(metricsLock_);
    if (streamError_) std::rethrow_exception(streamError_);
  }
  eventStore_.flush();
  geometryStore_.flush();
  cursorShapeStore_.flush();
  stopCameraQuietly();

  RecordingWriterResult written = mediaWriter_->finish();
  if (written.videoFrames <= 0) throw ScreenRecordingSessionError(ScreenRecordingSessionError::Case::noVideoFrames);

  std::int64_t pauseCount = 0;
  std::int64_t pausedDuration = 0;
  runOnCaptureQueue([&] {
    pauseCount = pauseCount_;
    pausedDuration = std::max<std::int64_t>(0, sourceTimeOffset_);
  });
  RecordingMetrics metrics;
  std::vector<std::string> notes;
  {
    std::lock_guard guard(metricsLock_);
    metrics_.videoFrames = written.videoFrames;
    metrics_.systemAudioSamples = written.systemAudioSamples;
    metrics_.microphoneSamples = written.microphoneSamples;
    metrics_.droppedVideoFrames += written.droppedVideoFrames + streams_.video->missedTicks();
    if (streams_.camera) {
      metrics_.webcamFrames = written.webcamFrames;
      metrics_.maximumWebcamOffsetNanoseconds = written.maximumWebcamOffsetNanoseconds;
      metrics_.droppedWebcamFrames = metrics_.droppedWebcamFrames.value_or(0) + written.droppedWebcamFrames;
    }
    metrics_.maximumAVDriftNanoseconds = written.maximumAVDriftNanoseconds;
    metrics_.pauseCount = pauseCount;
    metrics_.pausedDurationNanoseconds = pausedDuration;
    metrics_.writerStatus = "completed";
    diagnosticNotes_.push_back("Video encoder: " + mediaWriter_->videoEncoderName());
    metrics = metrics_;
    notes = diagnosticNotes_;
  }

  manifest_.state = ProjectState::finalizing;
  manifest_.updatedAt = Timestamp::now();
  manifest_.duration = written.duration;
  manifest_.metrics = metrics;
  manifest_.cursorAssets = cursorAssetStore_.descriptors();
  store_.updateManifest(manifest_, package_);

  std::vector<MouseEvent> events = ChunkReader().readMouseEvents(package_.mouseEventsDirectory());
  std::optional<WebcamOverlay> overlay;
  if (manifest_.webcam) {
    std::lock_guard guard(webcamOverlayLock_);
    overlay = webcamOverlay_.value_or(WebcamOverlay::newRecording());
  }
  store_.writeTimeline(makeInitialTimeline(written.duration, overlay, events), package_);

  DiagnosticReport report = DiagnosticReport::make(manifest_, false, notes);
  store_.writeReport(report, package_);
  ProjectPackage finished = store_.finish(package_, manifest_);
  package_ = finished;
  return RecordingSessionResult{finished, store_.loadSnapshot(finished), report};
}

void RecordingSessionCore::discard() {
  runOnCaptureQueue([this] {
    transportState_ = RecordingTransportState::discarding;
    clock_.pause();
    publishStatus(
        [](RecordingLiveStatus& status) {
          status.transportState = RecordingTransportState::discarding;
          status.microphoneLevel.reset();
        },
        true);
  });
  ended_ = true;
  stopPointerAndTasks();
  try {
    stopCaptureStreams(false);
  } catch (...) {
  }
  stopCameraQuietly();
  captureQueue_.waitUntilIdle();
  mediaWriter_->cancel();
  store_.discardRecording(package_);
}

void RecordingSessionCore::fail(const std::string& reason) noexcept {
  ended_ = true;
  stopPointerAndTasks();
  try {
    stopCaptureStreams(false);
  } catch (...) {
  }
  stopCameraQuietly();
  captureQueue_.waitUntilIdle();
  for (auto flush : {std::function<void()>([this] { eventStore_.flush(); }),
                     std::function<void()>([this] { geometryStore_.flush(); }),
                     std::function<void()>([this] { cursorShapeStore_.flush(); })}) {
    try {
      flush();
    } catch (...) {
    }
  }
  // The movie is left as it is: its fragments are what recovery works from.
  try {
    store_.markFailed(package_, manifest_, reason);
  } catch (...) {
  }
}

// ---- The sessions -----------------------------------------------------------------------------

ScreenRecordingSession::ScreenRecordingSession(ProjectStore& store, CreatedProject project,
                                               RecordingCaptureStreams streams,
                                               const RecordingMediaWriterFactory& writerFactory,
                                               RecordingSessionSettings settings)
    : core_(std::make_unique<RecordingSessionCore>(store, std::move(project), std::move(streams), writerFactory,
                                                   std::move(settings))) {}

ScreenRecordingSession::ScreenRecordingSession(std::unique_ptr<RecordingSessionCore> core) : core_(std::move(core)) {}

ScreenRecordingSession::~ScreenRecordingSession() = default;

std::unique_ptr<ScreenRecordingSession> ScreenRecordingSession::create(
    ProjectStore& store, const CaptureSourceDescriptor& source, const RecordingOptions& options,
    RecordingCaptureStreams streams, const RecordingMediaWriterFactory& writerFactory,
    RecordingSessionSettings settings, const std::optional<RecordingMicrophoneConfiguration>& microphone) {
  if (!streams.video) throw std::invalid_argument("a recording needs a video stream");
  std::optional<RecordingWebcamConfiguration> webcam;
  if (streams.camera && streams.cameraConfiguration) {
    const WebcamCaptureConfiguration& c = *streams.cameraConfiguration;
    webcam = RecordingWebcamConfiguration{c.deviceID, c.deviceName, c.pixelSize, c.framesPerSecond};
  }
  CreatedProject project = store.createProject(source, options, streams.video->pixelSize(), microphone, webcam);
  ProjectPackage package = project.package;
  try {
    return std::make_unique<ScreenRecordingSession>(store, std::move(project), std::move(streams), writerFactory,
                                                    std::move(settings));
  } catch (...) {
    // A writer that cannot open leaves nothing to recover: the package goes again.
    try {
      store.discardRecording(package);
    } catch (...) {
    }
    throw;
  }
}

void ScreenRecordingSession::start() { core_->start(); }
void ScreenRecordingSession::pause() { core_->pause(); }
void ScreenRecordingSession::resume() { core_->resume(); }
RecordingSessionResult ScreenRecordingSession::stop() { return core_->stop(); }
void ScreenRecordingSession::discard() { core_->discard(); }
void ScreenRecordingSession::fail(const std::string& reason) noexcept { core_->fail(reason); }
void ScreenRecordingSession::setWebcamOverlay(const std::optional<WebcamOverlay>& overlay) {
  core_->setWebcamOverlay(overlay);
}
void ScreenRecordingSession::drainCaptureQueue() { core_->drainCaptureQueue(); }
RecordingLiveStatus ScreenRecordingSession::liveStatus() const { return core_->liveStatus(); }
RecordingMetrics ScreenRecordingSession::metrics() const { return core_->metrics(); }
bool ScreenRecordingSession::hasFirstFrame() const { return core_->hasFirstFrame(); }
std::int64_t ScreenRecordingSession::framesHandedOver() const { return core_->framesHandedOver(); }
std::vector<std::string> ScreenRecordingSession::diagnosticNotes() const { return core_->diagnosticNotes(); }
const ProjectPackage& ScreenRecordingSession::package() const { return core_->package(); }

namespace {

CreatedProject requireDevice(CreatedProject project) {
  if (project.manifest.source.kind != CaptureSourceKind::device)
    throw std::invalid_argument("a device recording needs a device source");
  return project;
}

}  // namespace

DeviceRecordingSession::DeviceRecordingSession(ProjectStore& store, CreatedProject project,
                                               RecordingCaptureStreams streams,
                                               const RecordingMediaWriterFactory& writerFactory,
                                               RecordingSessionSettings settings)
    : ScreenRecordingSession(std::make_unique<RecordingSessionCore>(
          store, requireDevice(std::move(project)), std::move(streams), writerFactory, std::move(settings))) {}

}  // namespace vumo
