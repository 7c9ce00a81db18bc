#pragma once
// Turns one SceneState and the decoded frames of that instant into one picture on the GPU. Preview,
// the still frame and export all draw through it, so what is seen is what is exported.
//
// Two passes per frame, each one full-screen triangle: the scene pass draws background, screen,
// device frame, cursor, click effect, camera overlay and caption into an intermediate texture; the
// annotation pass reads it and draws the annotations into the target. A film frame takes a third,
// the film pass, which converts the finished frame into the encoder's Y'CbCr planes on the GPU, so
// that a third as many bytes come back, read through pixel buffers without waiting for the GPU.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "media/sequence_video_reader.h"
#include "media/still_image.h"
#include "project/project_snapshot.h"
#include "rendering/rendering_context.h"
#include "rendering/text_raster.h"
#include "scene/scene_state.h"
#include "shared/geometry.h"

namespace vumo {

// The decoded pictures of one instant. `sourceSize` is the recording's encoded pixel size, which
// the layout uses; a frame that is missing is drawn black (screen, camera) or not at all.
struct SceneFrames {
  PixelSize sourceSize;
  std::optional<DecodedVideoFrame> screen;
  std::optional<DecodedVideoFrame> webcam;
  std::optional<DecodedVideoFrame> backgroundVideo;
};

// Where captions and text annotations come from as pictures. `standard()` draws them with
// CaptionTextureRenderer and TextAnnotationRenderer; a null function draws none.
struct TextRasterSources {
  std::function<SharedTextRaster(const CaptionState&, PixelSize)> caption;
  std::function<SharedTextRaster(const AnnotationElement&, PixelSize)> textAnnotation;

  static TextRasterSources standard();
};

// Where the planes of one film frame go: Y' of every pixel, then Cb and Cr of every 2×2 block (the
// mean of its four pixels), BT.709 limited range, rows top first, each plane with its own row
// stride in bytes.
struct PlanarFrameTarget {
  std::array<std::uint8_t*, 3> planes{};
  std::array<int, 3> strides{};
};

class SceneRenderer {
 public:
  // Frames begun (beginPlanarFrame, beginRgbaFrame) and not yet finished, at most: the GPU may
  // draw one while the caller copies the other out.
  static constexpr int maximumFramesInFlight = 2;

  // Captions and text annotations drawn by TextRasterSources::standard().
  explicit SceneRenderer(std::shared_ptr<RenderingContext> context);
  SceneRenderer(std::shared_ptr<RenderingContext> context, TextRasterSources text);
  ~SceneRenderer();
  SceneRenderer(const SceneRenderer&) = delete;
  SceneRenderer& operator=(const SceneRenderer&) = delete;

  // Decodes the project's cursor shapes and canvas background pictures once; one that does not
  // decode is skipped (the arrow, or the preset colours, show instead). Safe while frames render.
  void registerProjectAssets(const ProjectSnapshot& snapshot);
  void registerCursorAssets(const std::vector<CursorAssetPayload>& assets);
  void registerCanvasBackgroundAssets(const std::vector<CanvasBackgroundAssetPayload>& assets);

  // One opaque frame of `outputSize`, rows top first. Takes the context for the call. Throws
  // SceneRendererError (tooManyAnnotations, encoderUnavailable) or RenderingContextError
  // (textureCreation).
  StillImage render(const SceneState& state, const SceneFrames& frames, PixelSize outputSize);

  // Draws one frame into the caller's framebuffer (GL name; 0 is not allowed, the context has no
  // surface), which must be complete and at least `outputSize`. The caller holds a
  // RenderingContext::Current of this renderer's context. The picture's top row is the
  // framebuffer's last row, as OpenGL orients it.
  void encode(const SceneState& state, const SceneFrames& frames, PixelSize outputSize, std::uint32_t framebuffer);

  // Draws one film frame of `outputSize` (even width and height), converts it into its planes on
  // the GPU and starts reading them back without waiting; finishPlanarFrame hands them over, the
  // oldest first. Takes the context for the call. Throws what render throws, and
  // SceneRendererError::encoderUnavailable for an odd size or when
  // maximumFramesInFlight frames wait already.
  void beginPlanarFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize);
  // Waits for the oldest frame begun and copies its planes into `target`, whose planes hold at least
  // its rows (half as many, half as wide, for Cb and Cr). Takes the context for the call. Throws
  // SceneRendererError::encoderUnavailable when no frame waits, the oldest is an RGBA one, or the
  // buffer cannot be read.
  void finishPlanarFrame(const PlanarFrameTarget& target);
  // As beginPlanarFrame without the film pass, for a conversion on the CPU: the frame's RGBA is read
  // back. Any size.
  void beginRgbaFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize);
  // As finishPlanarFrame for a frame begun with beginRgbaFrame: width × height × 4 bytes into
  // `pixels`, rows bottom first, as OpenGL orients them. The kind of the oldest frame begun must
  // match; otherwise SceneRendererError::encoderUnavailable.
  void finishRgbaFrame(std::uint8_t* pixels);
  // Forgets the frames begun and not finished (after a failure or a cancel).
  void discardFramesInFlight();
  int framesInFlight() const;

  const std::shared_ptr<RenderingContext>& context() const { return context_; }

 private:
  struct Assets;
  struct Gpu;

  void beginFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize, bool planar);
  void startReadback(std::uint32_t framebuffer, PixelSize texels, PixelSize frameSize, int pitch, bool planar);
  void finishFrame(bool planar, const std::function<void(const std::uint8_t*, PixelSize, int)>& copy);

  std::shared_ptr<RenderingContext> context_;
  TextRasterSources text_;
  std::unique_ptr<Assets> assets_;
  std::unique_ptr<Gpu> gpu_;
};

}  // namespace vumo
