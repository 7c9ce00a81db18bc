#pragma once

// The media engine as a part of the program that is loaded only when a command needs it. FFmpeg
// brings some 130 shared libraries with it; linked into the executable they would cost every
// command, `vumo cli list` included, some 25 ms of dynamic loading before it does anything. The
// engine is built as `lib/vumo/vumo-media.so` beside `bin/vumo` (and at the same place in the
// build tree), and the command line opens it on first use through this one entry point.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <vector>

#include "media/still_image.h"
#include "media/video_device_stream.h"
#include "media/waveform_service.h"
#include "project/media_probe.h"
#include "project/project_snapshot.h"
#include "recording/recording_media_writing.h"
#include "shared/geometry.h"
#include "shared/media_track_kind.h"
#include "shared/project_time.h"
#include "timeline/edit_timeline.h"

namespace vumo {

// Stills of edited projects on one GPU context, made once and used for any number of pictures.
class ProjectStillRendering {
 public:
  virtual ~ProjectStillRendering() = default;
  // The encoded picture of `snapshot` at `sequenceTime`, `width` pixels wide (the height follows
  // the canvas; both even). Throws ProjectFrameRendererError, the media errors, or CancelledError.
  virtual std::string render(const ProjectSnapshot& snapshot, ProjectTime sequenceTime, int width,
                             StillImageFormat format, std::stop_token stop) = 0;
};

// An export as the command line asks for it: the configuration's raw words (`p1080`, `fps60`,
// `standard`, `h264`), so that the program and the engine share no type above this area.
struct ProjectExportRequest {
  std::string resolution;
  std::string frameRate;
  std::string quality;
  std::string codec;
};

// How far an export is: `phase` is the raw word of the export phase (`preparing`, `rendering`,
// `finalizing`, `completed`).
struct ProjectExportProgress {
  std::string phase;
  std::int64_t completedFrames = 0;
  std::int64_t totalFrames = 0;
};

// A finished film.
struct ExportedFilm {
  std::filesystem::path outputPath;
  std::int64_t sizeBytes = 0;
  ProjectTime duration;  // frameCount / framesPerSecond
  std::int64_t frameCount = 0;
  int framesPerSecond = 0;
  PixelSize outputSize;
  std::string encoder;  // libavcodec's name of the video encoder that wrote it
  // The odd size an `original` export asked for when it was written one pixel smaller.
  std::optional<PixelSize> requestedOddSize;
};

// Films of edited projects on one GPU context.
class ProjectExporting {
 public:
  virtual ~ProjectExporting() = default;
  // Writes the film of `snapshot` to `target` (replacing a file there only once the film is
  // complete). Throws ProjectExporterError, ExportConfigurationError, the media and rendering
  // errors, or CancelledError; nothing is left at `target` by a failure.
  virtual ExportedFilm exportProject(const ProjectSnapshot& snapshot, const std::filesystem::path& target,
                                     const ProjectExportRequest& request,
                                     std::function<void(const ProjectExportProgress&)> progress,
                                     std::stop_token stop) = 0;
};

// The sound of an edited sequence from one time on: the audio mix with its speed changes, already
// on the sequence timeline, as interleaved 32-bit float samples at `sampleRate` and `channelCount`.
// Independent of the GPU context that made it; use from one thread at a time.
class PreviewAudioReading {
 public:
  static constexpr int sampleRate = 48'000;
  static constexpr int channelCount = 2;

  virtual ~PreviewAudioReading() = default;
  // Fills the front of `into` with the next frames (whole frames only) and returns how many frames
  // it wrote; 0 once the sequence is over. Throws the media errors or CancelledError.
  virtual std::int64_t read(std::span<float> into) = 0;
};

// The player's engine: one project's composition on one GPU context, used from one worker thread
// at a time. Pictures come from the same frame source, scene evaluator and scene renderer as the
// still of `frame` and the exported film, so what is played is what is exported.
class ProjectPreviewing {
 public:
  virtual ~ProjectPreviewing() = default;

  // Builds the composition of `snapshot` (the frame source and the sequence's sound) and returns
  // the sequence duration. Throws the composition and media errors, or the timeline's validation
  // errors; after a failure the engine has no composition until the next successful load.
  virtual ProjectTime load(const ProjectSnapshot& snapshot) = 0;

  // The look of the next frames (zooms, canvas, cursor, camera overlay, annotations) from
  // `timeline`, without opening any reader again. Its clips and audio mix are not read: a change
  // of those needs `load`.
  virtual void setVisualEdits(const EditTimeline& timeline) = 0;

  // The picture at `sequenceTime` (clamped into the sequence) as premultiplied RGBA8, rows top
  // first, as large as fits `maxSize` with the canvas's aspect and even sides. Increasing times
  // decode forward; only a jump back (or far ahead) seeks. Throws the media and rendering errors,
  // ProjectFrameRendererError::unavailable without a composition or a screen picture at that time,
  // or CancelledError.
  virtual StillImage render(ProjectTime sequenceTime, PixelSize maxSize, std::stop_token stop) = 0;

  // The sequence's sound from `from` on; null when the sequence has no sound. Throws the media
  // errors.
  virtual std::unique_ptr<PreviewAudioReading> openAudio(ProjectTime from) = 0;
};

// What a canvas wallpaper needs to know of a movie: the size and length of its first video stream,
// the one the renderer plays.
struct VideoFileDescription {
  PixelSize pixelSize;
  ProjectTime duration;

  friend bool operator==(const VideoFileDescription&, const VideoFileDescription&) = default;
};

struct MediaModule {
  // Raised whenever a member changes meaning, so a program never calls into an engine built for
  // another one.
  static constexpr int currentInterfaceVersion = 7;
  static constexpr const char* fileName = "vumo-media.so";
  static constexpr const char* entryPointName = "vumoMediaModule";

  int interfaceVersion = currentInterfaceVersion;
  std::shared_ptr<WaveformProviding> (*makeWaveformService)() = nullptr;
  void (*exportCaptionAudio)(const ProjectSnapshot& snapshot, MediaTrackKind track, const std::filesystem::path& target,
                             std::stop_token stop) = nullptr;
  // Creates the GPU context and the renderer on it; throws RenderingContextError.
  std::shared_ptr<ProjectStillRendering> (*makeStillRenderer)() = nullptr;
  // Creates the GPU context and the renderer on it; throws RenderingContextError.
  std::shared_ptr<ProjectExporting> (*makeExporter)() = nullptr;
  // The movie of a recording; throws RecordingMediaWriterError or FileError.
  std::unique_ptr<RecordingMediaWriting> (*makeRecordingMediaWriter)(const RecordingWriterConfiguration&) = nullptr;
  // The cameras and capture devices under /dev.
  std::vector<VideoDeviceDescription> (*listVideoDevices)() = nullptr;
  // Throws VideoDeviceError.
  std::unique_ptr<VideoCaptureStream> (*makeVideoDeviceStream)(const VideoDeviceRequest&) = nullptr;
  // What recovery needs to know of an unfinished recording's movie (MediaProbe::inspect).
  std::optional<MediaProbeResult> (*probeRecordingMedia)(const std::filesystem::path&) = nullptr;
  // The player's engine on a new GPU context; throws RenderingContextError.
  std::shared_ptr<ProjectPreviewing> (*makePreviewer)() = nullptr;
  // Any movie file: none when it is not one the engine can decode (no video stream, no decoder for
  // it, no size or no positive length). Throws CancelledError.
  std::optional<VideoFileDescription> (*describeVideoFile)(const std::filesystem::path& file,
                                                           std::stop_token stop) = nullptr;
};

using MediaModuleEntryPoint = const MediaModule* (*)();

}  // namespace vumo
