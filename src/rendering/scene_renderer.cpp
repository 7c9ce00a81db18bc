#include "rendering/scene_renderer.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "rendering/gl_objects.h"
#include "rendering/rendering_errors.h"
#include "rendering/scene_uniforms.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "timeline/device_frame_catalog.h"

namespace vumo {

namespace {

// Texture units of the scene pass; the names in scene.frag are bound to the same numbers.
enum SceneUnit : GLuint {
  screenUnit = 0,      // three planes
  cameraUnit = 3,      // three planes
  backgroundUnit = 6,  // three planes, or the picture at the first
  deviceFrameUnit = 9,
  cursorUnit = 10,
  captionUnit = 11,
  sceneUnitCount = 12,
};

// Uniform block bindings.
enum Binding : GLuint { sceneBinding = 0, headerBinding = 0, annotationBinding = 1, placementBinding = 2 };

constexpr int atlasPadding = 1;

// A decoded picture whose texture is made on first use, on the rendering thread.
struct PictureAsset {
  StillImage image;  // released once uploaded
  PixelSize size;
  SizeValue logicalSize;  // cursors: points
  PointValue hotSpot;     // cursors: points
  gl::Texture texture;

  GLuint textureName() {
    if (!texture) {
      texture = gl::uploadRGBA(image.width, image.height, image.pixels.data());
      image = {};
    }
    return texture.get();
  }
};

struct DeviceFrameAsset {
  PictureAsset picture;
  DeviceFrameLayout layout;
};

struct PlaneTexture {
  gl::Texture texture;
  int width = 0;
  int height = 0;
  GLenum format = 0;
};

std::shared_ptr<PictureAsset> decodePicture(std::string_view encoded) {
  try {
    StillImage image = decodeStillImage(encoded);
    if (image.isEmpty()) return nullptr;
    auto asset = std::make_shared<PictureAsset>();
    asset->size = {image.width, image.height};
    asset->image = std::move(image);
    return asset;
  } catch (const StillImageError&) {
    return nullptr;
  }
}

[[noreturn]] void textureFailure(std::string_view code) {
  throw RenderingContextError(RenderingContextError::Case::textureCreation, code);
}

void checkGl(std::string_view stage) {
  const GLenum error = glGetError();
  if (error != GL_NO_ERROR) textureFailure(fmt::format("{} 0x{:04x}", stage, error));
}

// Uploads one plane with its stride; the texture keeps its storage while the size stays.
void uploadPlane(PlaneTexture& plane, GLenum internalFormat, GLenum format, int bytesPerPixel, int width, int height,
                 const std::uint8_t* data, int stride) {
  if (data == nullptr || width <= 0 || height <= 0 || stride < width * bytesPerPixel || stride % bytesPerPixel != 0)
    textureFailure("plane layout");
  if (!plane.texture) plane.texture = gl::makeTexture();
  glBindTexture(GL_TEXTURE_2D, plane.texture.get());
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, stride / bytesPerPixel);
  if (plane.width != width || plane.height != height || plane.format != format) {
    glTexImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(internalFormat), width, height, 0, format, GL_UNSIGNED_BYTE,
                 data);
    plane.width = width;
    plane.height = height;
    plane.format = format;
  } else {
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, width, height, format, GL_UNSIGNED_BYTE, data);
  }
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  checkGl("plane upload");
}

PlaneFormat uploadFrame(const std::optional<DecodedVideoFrame>& frame, PlaneTexture* planes) {
  if (!frame || frame->width <= 0 || frame->height <= 0) return {};
  const DecodedVideoFrame& f = *frame;
  const int chromaWidth = (f.width + 1) / 2;
  const int chromaHeight = (f.height + 1) / 2;
  PlaneFormat result;
  result.fullRange = f.range == VideoColorRange::full;
  result.matrix = f.matrix == VideoColorMatrix::bt601 ? 1 : f.matrix == VideoColorMatrix::bt2020 ? 2 : 0;
  uploadPlane(planes[0], GL_R8, GL_RED, 1, f.width, f.height, f.planes[0], f.strides[0]);
  if (f.layout == VideoPixelLayout::nv12) {
    uploadPlane(planes[1], GL_RG8, GL_RG, 2, chromaWidth, chromaHeight, f.planes[1], f.strides[1]);
    result.layout = PlaneLayout::nv12;
  } else {
    uploadPlane(planes[1], GL_R8, GL_RED, 1, chromaWidth, chromaHeight, f.planes[1], f.strides[1]);
    uploadPlane(planes[2], GL_R8, GL_RED, 1, chromaWidth, chromaHeight, f.planes[2], f.strides[2]);
    result.layout = PlaneLayout::yuv420p;
  }
  return result;
}

PixelSize frameSize(const std::optional<DecodedVideoFrame>& frame) {
  return frame ? PixelSize{frame->width, frame->height} : PixelSize{};
}

void bindUnit(GLuint unit, GLuint texture, GLuint sampler) {
  glActiveTexture(GL_TEXTURE0 + unit);
  glBindTexture(GL_TEXTURE_2D, texture);
  glBindSampler(unit, sampler);
}

template <typename T>
void fillBlock(const gl::Buffer& buffer, GLuint binding, const T* data, std::size_t bytes) {
  glBindBuffer(GL_UNIFORM_BUFFER, buffer.get());
  glBufferData(GL_UNIFORM_BUFFER, static_cast<GLsizeiptr>(bytes), data, GL_STREAM_DRAW);
  glBindBufferBase(GL_UNIFORM_BUFFER, binding, buffer.get());
}

void ensureTarget(gl::Texture& texture, gl::Framebuffer& framebuffer, PixelSize& current, PixelSize wanted) {
  if (texture && current == wanted) return;
  texture = gl::makeTexture();
  glBindTexture(GL_TEXTURE_2D, texture.get());
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, static_cast<GLsizei>(wanted.width), static_cast<GLsizei>(wanted.height), 0,
               GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  if (!framebuffer) framebuffer = gl::makeFramebuffer();
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer.get());
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture.get(), 0);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE || glGetError() != GL_NO_ERROR) {
    texture.reset();
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  }
  current = wanted;
}

// The film pass's packed planes (`pitch` bytes a row of Y', half that of Cb and Cr) into the
// caller's planes.
void copyPlanes(const std::uint8_t* bytes, std::size_t width, std::size_t height, std::size_t pitch,
                const PlanarFrameTarget& target) {
  auto copyPlane = [](const std::uint8_t* from, std::size_t fromPitch, std::uint8_t* to, int toStride,
                      std::size_t rowBytes, std::size_t rows) {
    for (std::size_t row = 0; row < rows; ++row)
      std::memcpy(to + row * static_cast<std::size_t>(toStride), from + row * fromPitch, rowBytes);
  };
  copyPlane(bytes, pitch, target.planes[0], target.strides[0], width, height);
  const std::uint8_t* chroma = bytes + pitch * height;
  copyPlane(chroma, pitch / 2, target.planes[1], target.strides[1], width / 2, height / 2);
  copyPlane(chroma + pitch / 2 * (height / 2), pitch / 2, target.planes[2], target.strides[2], width / 2, height / 2);
}

}  // namespace

struct SceneRenderer::Assets {
  std::mutex lock;  // held for lookups and inserts only, never while decoding or drawing
  std::map<std::string, std::shared_ptr<PictureAsset>> cursors;
  std::map<std::string, std::shared_ptr<PictureAsset>> backgrounds;
  std::map<std::string, std::shared_ptr<DeviceFrameAsset>> deviceFrames;  // null: could not be loaded
  std::optional<DeviceFrameCatalog> catalog;
  bool catalogLoaded = false;
};

struct SceneRenderer::Gpu {
  gl::VertexArray vertexArray;
  gl::Texture standby;  // 1×1 transparent, in every slot a frame leaves empty
  std::array<PlaneTexture, 9> planes;
  gl::Texture caption;
  const TextRaster* captionRaster = nullptr;
  gl::Texture atlas;
  std::vector<const TextRaster*> atlasRasters;
  std::vector<RectValue> atlasRects;
  PixelSize atlasSize;
  gl::Texture intermediate;
  gl::Framebuffer intermediateFramebuffer;
  PixelSize intermediateSize;
  gl::Texture output;
  gl::Framebuffer outputFramebuffer;
  PixelSize outputSize;
  gl::Buffer sceneBlock, headerBlock, annotationBlock, placementBlock;
  // The film pass: its packed planes, and the pixel buffers they are read into, used in turn.
  gl::Texture filmPlanes;
  gl::Framebuffer filmPlanesFramebuffer;
  PixelSize filmPlanesSize;  // texels
  struct Readback {
    gl::Buffer buffer;
    std::size_t capacity = 0;
    PixelSize frameSize;
    int pitch = 0;
    bool planar = false;  // the film pass's planes, or the frame's RGBA
  };
  std::array<Readback, SceneRenderer::maximumFramesInFlight> readbacks;
  int oldestReadback = 0;
  int readbacksInFlight = 0;
};

SceneRenderer::SceneRenderer(std::shared_ptr<RenderingContext> context, TextRasterSources text)
    : context_(std::move(context)), text_(std::move(text)), assets_(std::make_unique<Assets>()) {
  RenderingContext::Current current(*context_);
  gpu_ = std::make_unique<Gpu>();
  gpu_->vertexArray = gl::makeVertexArray();
  const std::uint8_t transparent[4] = {0, 0, 0, 0};
  gpu_->standby = gl::uploadRGBA(1, 1, transparent);
  gpu_->sceneBlock = gl::makeBuffer();
  gpu_->headerBlock = gl::makeBuffer();
  gpu_->annotationBlock = gl::makeBuffer();
  gpu_->placementBlock = gl::makeBuffer();
  if (glGetError() != GL_NO_ERROR) throw RenderingContextError(RenderingContextError::Case::unavailable);
}

SceneRenderer::~SceneRenderer() {
  RenderingContext::Current current(*context_);
  gpu_.reset();
  assets_.reset();
}

void SceneRenderer::registerProjectAssets(const ProjectSnapshot& snapshot) {
  registerCursorAssets(snapshot.cursorAssets);
  registerCanvasBackgroundAssets(snapshot.canvasBackgroundAssets);
}

void SceneRenderer::registerCursorAssets(const std::vector<CursorAssetPayload>& assets) {
  for (const CursorAssetPayload& payload : assets) {
    {
      std::lock_guard guard(assets_->lock);
      if (assets_->cursors.count(payload.descriptor.id)) continue;
    }
    std::shared_ptr<PictureAsset> asset = decodePicture(payload.pngData);
    if (!asset) continue;
    asset->logicalSize = payload.descriptor.logicalSize;
    asset->hotSpot = payload.descriptor.hotSpot;
    std::lock_guard guard(assets_->lock);
    assets_->cursors.emplace(payload.descriptor.id, std::move(asset));
  }
}

void SceneRenderer::registerCanvasBackgroundAssets(const std::vector<CanvasBackgroundAssetPayload>& assets) {
  for (const CanvasBackgroundAssetPayload& payload : assets) {
    // Video wallpapers arrive as decoded frames with each picture, not as one image.
    if (payload.descriptor.mediaKind != CanvasBackgroundMediaKind::image) continue;
    {
      std::lock_guard guard(assets_->lock);
      if (assets_->backgrounds.count(payload.descriptor.id)) continue;
    }
    std::shared_ptr<PictureAsset> asset = decodePicture(payload.imageData);
    if (!asset) continue;
    std::lock_guard guard(assets_->lock);
    assets_->backgrounds.emplace(payload.descriptor.id, std::move(asset));
  }
}

StillImage SceneRenderer::render(const SceneState& state, const SceneFrames& frames, PixelSize outputSize) {
  if (outputSize.width <= 0 || outputSize.height <= 0 || outputSize.width > context_->maximumTextureSize() ||
      outputSize.height > context_->maximumTextureSize())
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  RenderingContext::Current current(*context_);
  Gpu& gpu = *gpu_;
  ensureTarget(gpu.output, gpu.outputFramebuffer, gpu.outputSize, outputSize);
  encode(state, frames, outputSize, gpu.outputFramebuffer.get());

  const int width = static_cast<int>(outputSize.width);
  const int height = static_cast<int>(outputSize.height);
  StillImage image;
  image.width = width;
  image.height = height;
  image.pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4);
  glBindFramebuffer(GL_FRAMEBUFFER, gpu.outputFramebuffer.get());
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, image.pixels.data());
  if (glGetError() != GL_NO_ERROR) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  // OpenGL hands rows bottom first.
  const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
  std::vector<std::uint8_t> row(rowBytes);
  for (int top = 0, bottom = height - 1; top < bottom; ++top, --bottom) {
    std::uint8_t* a = image.pixels.data() + static_cast<std::size_t>(top) * rowBytes;
    std::uint8_t* b = image.pixels.data() + static_cast<std::size_t>(bottom) * rowBytes;
    std::memcpy(row.data(), a, rowBytes);
    std::memcpy(a, b, rowBytes);
    std::memcpy(b, row.data(), rowBytes);
  }
  return image;
}

void SceneRenderer::beginPlanarFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize) {
  beginFrame(state, frames, outputSize, true);
}

void SceneRenderer::beginRgbaFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize) {
  beginFrame(state, frames, outputSize, false);
}

void SceneRenderer::beginFrame(const SceneState& state, const SceneFrames& frames, PixelSize outputSize, bool planar) {
  if (outputSize.width <= 0 || outputSize.height <= 0 || outputSize.width > context_->maximumTextureSize() ||
      outputSize.height > context_->maximumTextureSize() ||
      (planar && (outputSize.width % 2 != 0 || outputSize.height % 2 != 0)))
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  RenderingContext::Current current(*context_);
  Gpu& gpu = *gpu_;
  if (gpu.readbacksInFlight >= maximumFramesInFlight)
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  ensureTarget(gpu.output, gpu.outputFramebuffer, gpu.outputSize, outputSize);
  encode(state, frames, outputSize, gpu.outputFramebuffer.get());
  if (!planar) {
    startReadback(gpu.outputFramebuffer.get(), outputSize, outputSize, static_cast<int>(outputSize.width) * 4, false);
    return;
  }

  // Four bytes a texel, rows of a multiple of 8 bytes: no group of four crosses a row or a plane.
  const int width = static_cast<int>(outputSize.width);
  const int height = static_cast<int>(outputSize.height);
  const int pitch = (width + 7) / 8 * 8;
  const PixelSize packedSize{pitch / 4, height + height / 2};
  if (!gpu.filmPlanes || gpu.filmPlanesSize != packedSize) {
    gpu.filmPlanes = gl::makeTexture();
    glBindTexture(GL_TEXTURE_2D, gpu.filmPlanes.get());
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, static_cast<GLsizei>(packedSize.width),
                 static_cast<GLsizei>(packedSize.height), 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    if (!gpu.filmPlanesFramebuffer) gpu.filmPlanesFramebuffer = gl::makeFramebuffer();
    glBindFramebuffer(GL_FRAMEBUFFER, gpu.filmPlanesFramebuffer.get());
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, gpu.filmPlanes.get(), 0);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE || glGetError() != GL_NO_ERROR) {
      gpu.filmPlanes.reset();
      throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
    }
    gpu.filmPlanesSize = packedSize;
  }
  glBindFramebuffer(GL_FRAMEBUFFER, gpu.filmPlanesFramebuffer.get());
  glDisable(GL_BLEND);
  glBindVertexArray(gpu.vertexArray.get());
  bindUnit(0, gpu.output.get(), context_->sampler());
  // Y' rows first, then the Cb and Cr rows, each program over its own rows.
  for (const bool chroma : {false, true}) {
    const GLuint program = context_->filmPlanesProgram(chroma);
    glViewport(0, chroma ? height : 0, static_cast<GLsizei>(packedSize.width), chroma ? height / 2 : height);
    glUseProgram(program);
    glUniform4i(glGetUniformLocation(program, "planeLayout"), width, height, pitch, 0);
    glDrawArrays(GL_TRIANGLES, 0, 3);
  }
  glBindVertexArray(0);
  glUseProgram(0);
  startReadback(gpu.filmPlanesFramebuffer.get(), packedSize, outputSize, pitch, true);
}

void SceneRenderer::startReadback(std::uint32_t framebuffer, PixelSize texels, PixelSize frameSize, int pitch,
                                  bool planar) {
  Gpu& gpu = *gpu_;
  Gpu::Readback& readback =
      gpu.readbacks[static_cast<std::size_t>((gpu.oldestReadback + gpu.readbacksInFlight) % maximumFramesInFlight)];
  const std::size_t bytes = static_cast<std::size_t>(pitch) * static_cast<std::size_t>(texels.height);
  if (!readback.buffer) readback.buffer = gl::makeBuffer();
  glBindBuffer(GL_PIXEL_PACK_BUFFER, readback.buffer.get());
  if (readback.capacity != bytes) {
    glBufferData(GL_PIXEL_PACK_BUFFER, static_cast<GLsizeiptr>(bytes), nullptr, GL_STREAM_READ);
    readback.capacity = bytes;
  }
  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
  glPixelStorei(GL_PACK_ALIGNMENT, 4);
  glPixelStorei(GL_PACK_ROW_LENGTH, 0);
  glReadPixels(0, 0, static_cast<GLsizei>(texels.width), static_cast<GLsizei>(texels.height), GL_RGBA, GL_UNSIGNED_BYTE,
               nullptr);
  glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
  if (glGetError() != GL_NO_ERROR) {
    readback.capacity = 0;
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  }
  // Sends the work to the GPU now rather than when the buffer is mapped, one frame later.
  glFlush();
  readback.frameSize = frameSize;
  readback.pitch = pitch;
  readback.planar = planar;
  ++gpu.readbacksInFlight;
}

void SceneRenderer::finishFrame(bool planar, const std::function<void(const std::uint8_t*, PixelSize, int)>& copy) {
  RenderingContext::Current current(*context_);
  Gpu& gpu = *gpu_;
  if (gpu.readbacksInFlight == 0) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  Gpu::Readback& readback = gpu.readbacks[static_cast<std::size_t>(gpu.oldestReadback)];
  if (readback.planar != planar) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  gpu.oldestReadback = (gpu.oldestReadback + 1) % maximumFramesInFlight;
  --gpu.readbacksInFlight;

  glBindBuffer(GL_PIXEL_PACK_BUFFER, readback.buffer.get());
  const void* mapped =
      glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, static_cast<GLsizeiptr>(readback.capacity), GL_MAP_READ_BIT);
  if (mapped == nullptr) {
    glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  }
  copy(static_cast<const std::uint8_t*>(mapped), readback.frameSize, readback.pitch);
  const bool intact = glUnmapBuffer(GL_PIXEL_PACK_BUFFER) == GL_TRUE;
  glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
  if (!intact) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
}

void SceneRenderer::finishRgbaFrame(std::uint8_t* pixels) {
  finishFrame(false, [&](const std::uint8_t* bytes, PixelSize size, int pitch) {
    std::memcpy(pixels, bytes, static_cast<std::size_t>(pitch) * static_cast<std::size_t>(size.height));
  });
}

void SceneRenderer::finishPlanarFrame(const PlanarFrameTarget& target) {
  finishFrame(true, [&](const std::uint8_t* bytes, PixelSize size, int rowBytes) {
    const std::size_t width = static_cast<std::size_t>(size.width);
    const std::size_t height = static_cast<std::size_t>(size.height);
    const std::size_t pitch = static_cast<std::size_t>(rowBytes);
    copyPlanes(bytes, width, height, pitch, target);
  });
}

void SceneRenderer::discardFramesInFlight() {
  Gpu& gpu = *gpu_;
  gpu.oldestReadback = 0;
  gpu.readbacksInFlight = 0;
}

int SceneRenderer::framesInFlight() const { return gpu_->readbacksInFlight; }

void SceneRenderer::encode(const SceneState& state, const SceneFrames& frames, PixelSize outputSize,
                           std::uint32_t framebuffer) {
  if (state.annotations.size() > static_cast<std::size_t>(maximumRenderedAnnotations))
    throw SceneRendererError(SceneRendererError::Case::tooManyAnnotations);
  if (framebuffer == 0 || outputSize.width <= 0 || outputSize.height <= 0)
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  Gpu& gpu = *gpu_;
  const GLuint sampler = context_->sampler();
  glGetError();  // a stale error of the caller is not ours

  // What this frame draws from the caches, looked up under the lock and drawn without it.
  std::shared_ptr<PictureAsset> cursorAsset, backgroundAsset;
  std::shared_ptr<DeviceFrameAsset> frameAsset;
  const bool wantsFrame = state.deviceFrame && state.deviceFrame->isEnabled && !state.deviceFrame->assetID.empty();
  bool frameKnown = false;
  {
    std::lock_guard guard(assets_->lock);
    if (state.cursor.assetID) {
      auto found = assets_->cursors.find(*state.cursor.assetID);
      if (found != assets_->cursors.end()) cursorAsset = found->second;
    }
    if (state.canvas.image && state.canvas.image->mediaKind == CanvasBackgroundMediaKind::image) {
      auto found = assets_->backgrounds.find(state.canvas.image->id);
      if (found != assets_->backgrounds.end()) backgroundAsset = found->second;
    }
    if (wantsFrame) {
      auto found = assets_->deviceFrames.find(state.deviceFrame->assetID);
      frameKnown = found != assets_->deviceFrames.end();
      if (frameKnown) frameAsset = found->second;
    }
  }
  if (wantsFrame && !frameKnown) {
    // Loaded on first use and remembered, also when it fails, so a bad resource costs one try.
    std::optional<DeviceFrameCatalog> catalog;
    {
      std::lock_guard guard(assets_->lock);
      catalog = assets_->catalog;
      if (!assets_->catalogLoaded) {
        try {
          assets_->catalog = DeviceFrameCatalog::load(context_->resourceDirectory());
        } catch (const Error&) {
          assets_->catalog.reset();
        }
        assets_->catalogLoaded = true;
        catalog = assets_->catalog;
      }
    }
    if (catalog) {
      if (auto selection = catalog->descriptor(state.deviceFrame->assetID)) {
        try {
          auto picture = decodePicture(
              readFile(context_->resourceDirectory() / selection->variant.file, documentLimits::resourceBytes));
          if (picture) {
            frameAsset = std::make_shared<DeviceFrameAsset>();
            frameAsset->picture.image = std::move(picture->image);
            frameAsset->picture.size = picture->size;
            frameAsset->layout = {selection->descriptor.outerPixelSize, selection->descriptor.screenRect,
                                  selection->descriptor.screenCornerRadius, state.deviceFrame->contentMode};
          }
        } catch (const Error&) {
          frameAsset.reset();
        }
      }
    }
    std::lock_guard guard(assets_->lock);
    assets_->deviceFrames.emplace(state.deviceFrame->assetID, frameAsset);
  }

  SceneUniformInputs inputs;
  inputs.sourceSize = frames.sourceSize;
  inputs.outputSize = outputSize;
  inputs.screenPlanes = uploadFrame(frames.screen, &gpu.planes[screenUnit]);
  inputs.webcamPlanes = uploadFrame(frames.webcam, &gpu.planes[cameraUnit]);
  inputs.webcamSize = inputs.webcamPlanes.layout == PlaneLayout::none ? PixelSize{} : frameSize(frames.webcam);

  GLuint backgroundPicture = 0;
  inputs.background =
      state.canvas.background == CanvasBackground::solid ? BackgroundKind::solid : BackgroundKind::gradient;
  if (state.canvas.image && state.canvas.image->mediaKind == CanvasBackgroundMediaKind::video &&
      frames.backgroundVideo) {
    inputs.backgroundPlanes = uploadFrame(frames.backgroundVideo, &gpu.planes[backgroundUnit]);
    if (inputs.backgroundPlanes.layout != PlaneLayout::none) {
      inputs.background = BackgroundKind::video;
      inputs.backgroundPictureSize = frameSize(frames.backgroundVideo);
    }
  } else if (backgroundAsset) {
    backgroundPicture = backgroundAsset->textureName();
    inputs.background = BackgroundKind::image;
    inputs.backgroundPictureSize = backgroundAsset->size;
  }

  if (frameAsset) inputs.deviceFrame = frameAsset->layout;

  GLuint cursorTexture = context_->cursorTexture();
  if (cursorAsset) {
    cursorTexture = cursorAsset->textureName();
    inputs.cursorLogicalSize = state.cursor.logicalSize.value_or(cursorAsset->logicalSize);
    inputs.cursorHotSpot = state.cursor.hotSpot.value_or(cursorAsset->hotSpot);
  } else {
    inputs.cursorLogicalSize = context_->cursorSize();
    inputs.cursorHotSpot = context_->cursorHotSpot();
  }

  GLuint captionTexture = 0;
  if (state.caption && text_.caption) {
    if (SharedTextRaster raster = text_.caption(*state.caption, outputSize); raster && !raster->image.isEmpty()) {
      if (gpu.captionRaster != raster.get() || !gpu.caption) {
        gpu.caption = gl::uploadRGBA(raster->image.width, raster->image.height, raster->image.pixels.data());
        gpu.captionRaster = raster.get();
      }
      captionTexture = gpu.caption.get();
      inputs.captionFrame = raster->frame;
    }
  }
  checkGl("asset upload");

  const SceneUniforms uniforms = sceneUniforms(state, inputs);

  // Scene pass: into the intermediate texture when annotations follow, else straight into the
  // target, which saves a full-frame pass.
  const bool annotated = !state.annotations.empty();
  const GLsizei width = static_cast<GLsizei>(outputSize.width);
  const GLsizei height = static_cast<GLsizei>(outputSize.height);
  if (annotated) {
    ensureTarget(gpu.intermediate, gpu.intermediateFramebuffer, gpu.intermediateSize, outputSize);
    glBindFramebuffer(GL_FRAMEBUFFER, gpu.intermediateFramebuffer.get());
  } else {
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE)
      throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  }
  glViewport(0, 0, width, height);
  glDisable(GL_BLEND);
  glDisable(GL_DEPTH_TEST);
  glDisable(GL_SCISSOR_TEST);
  glUseProgram(context_->sceneProgram(sceneFeatures(uniforms)));
  glBindVertexArray(gpu.vertexArray.get());
  fillBlock(gpu.sceneBlock, sceneBinding, &uniforms, sizeof uniforms);
  auto plane = [&](int index) {
    return gpu.planes[static_cast<std::size_t>(index)].texture
               ? gpu.planes[static_cast<std::size_t>(index)].texture.get()
               : gpu.standby.get();
  };
  auto slotFor = [&](const PlaneFormat& format, int first, int index) {
    if (format.layout == PlaneLayout::none) return gpu.standby.get();
    if (format.layout == PlaneLayout::nv12 && index == 2) return gpu.standby.get();
    return plane(first + index);
  };
  for (int i = 0; i < 3; ++i) {
    bindUnit(screenUnit + i, slotFor(inputs.screenPlanes, screenUnit, i), sampler);
    bindUnit(cameraUnit + i, slotFor(inputs.webcamPlanes, cameraUnit, i), sampler);
    GLuint background = slotFor(inputs.backgroundPlanes, backgroundUnit, i);
    if (inputs.background == BackgroundKind::image) background = i == 0 ? backgroundPicture : gpu.standby.get();
    bindUnit(backgroundUnit + i, background, sampler);
  }
  bindUnit(deviceFrameUnit, frameAsset ? frameAsset->picture.textureName() : gpu.standby.get(), sampler);
  bindUnit(cursorUnit, cursorTexture, sampler);
  bindUnit(captionUnit, captionTexture != 0 ? captionTexture : gpu.standby.get(), sampler);
  glDrawArrays(GL_TRIANGLES, 0, 3);
  if (glGetError() != GL_NO_ERROR) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  if (!annotated) {
    glBindVertexArray(0);
    glUseProgram(0);
    return;
  }

  // Annotation pass: the text rasters packed into one atlas, in annotation order, on shelves.
  std::vector<SharedTextRaster> rasters(state.annotations.size());
  if (text_.textAnnotation) {
    for (std::size_t i = 0; i < state.annotations.size(); ++i)
      if (state.annotations[i].kind == AnnotationKind::text) {
        SharedTextRaster raster = text_.textAnnotation(state.annotations[i], outputSize);
        if (raster && !raster->image.isEmpty()) rasters[i] = std::move(raster);
      }
  }
  std::vector<const TextRaster*> rasterKeys;
  for (const SharedTextRaster& r : rasters) rasterKeys.push_back(r.get());
  if (rasterKeys != gpu.atlasRasters || !gpu.atlas) {
    const int maximum = context_->maximumTextureSize();
    int shelfWidth = 1;
    for (const SharedTextRaster& r : rasters)
      if (r) shelfWidth = std::max(shelfWidth, r->image.width + atlasPadding);
    shelfWidth = std::min(std::max(shelfWidth, 2048), maximum);
    std::vector<RectValue> rects(rasters.size());
    int x = 0, y = 0, shelfHeight = 0, usedWidth = 1;
    for (std::size_t i = 0; i < rasters.size(); ++i) {
      if (!rasters[i]) continue;
      const int w = rasters[i]->image.width, h = rasters[i]->image.height;
      if (x + w > shelfWidth) {
        x = 0;
        y += shelfHeight;
        shelfHeight = 0;
      }
      rects[i] = {static_cast<double>(x), static_cast<double>(y), static_cast<double>(w), static_cast<double>(h)};
      x += w + atlasPadding;
      usedWidth = std::max(usedWidth, x);
      shelfHeight = std::max(shelfHeight, h + atlasPadding);
    }
    const int atlasHeight = std::max(1, y + shelfHeight);
    const int atlasWidth = std::min(usedWidth, maximum);
    if (atlasHeight > maximum || atlasWidth > maximum) textureFailure("text atlas size");
    gpu.atlas = gl::makeTexture();
    glBindTexture(GL_TEXTURE_2D, gpu.atlas.get());
    std::vector<std::uint8_t> clear(static_cast<std::size_t>(atlasWidth) * static_cast<std::size_t>(atlasHeight) * 4);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
    glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, atlasWidth, atlasHeight, 0, GL_RGBA, GL_UNSIGNED_BYTE, clear.data());
    for (std::size_t i = 0; i < rasters.size(); ++i) {
      if (!rasters[i]) continue;
      glTexSubImage2D(GL_TEXTURE_2D, 0, static_cast<GLint>(rects[i].x), static_cast<GLint>(rects[i].y),
                      rasters[i]->image.width, rasters[i]->image.height, GL_RGBA, GL_UNSIGNED_BYTE,
                      rasters[i]->image.pixels.data());
    }
    checkGl("text atlas upload");
    gpu.atlasRasters = rasterKeys;
    gpu.atlasRects = rects;
    gpu.atlasSize = {atlasWidth, atlasHeight};
  }

  std::array<AnnotationUniform, maximumRenderedAnnotations> annotationArray{};
  const std::vector<AnnotationUniform> packed = annotationUniforms(state.annotations);
  std::copy(packed.begin(), packed.end(), annotationArray.begin());
  std::array<Vec4, maximumRenderedAnnotations * 2> placements{};
  for (std::size_t i = 0; i < rasters.size(); ++i) {
    if (!rasters[i]) continue;
    const RectValue& a = gpu.atlasRects[i];
    const RectValue& frame = rasters[i]->frame;
    placements[i * 2] = {static_cast<float>(a.x), static_cast<float>(a.y), static_cast<float>(a.width),
                         static_cast<float>(a.height)};
    placements[i * 2 + 1] = {static_cast<float>(frame.x), static_cast<float>(frame.y),
                             static_cast<float>(rasters[i]->image.width), static_cast<float>(rasters[i]->image.height)};
  }
  const AnnotationHeader header = annotationHeader(outputSize, state.annotations.size(), gpu.atlasSize);

  glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
  if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE)
    throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  glViewport(0, 0, width, height);
  glUseProgram(context_->annotationProgram());
  fillBlock(gpu.headerBlock, headerBinding, &header, sizeof header);
  fillBlock(gpu.annotationBlock, annotationBinding, annotationArray.data(), sizeof annotationArray);
  fillBlock(gpu.placementBlock, placementBinding, placements.data(), sizeof placements);
  bindUnit(0, gpu.intermediate.get(), sampler);
  bindUnit(1, gpu.atlas.get(), sampler);
  glDrawArrays(GL_TRIANGLES, 0, 3);
  if (glGetError() != GL_NO_ERROR) throw SceneRendererError(SceneRendererError::Case::encoderUnavailable);
  glBindVertexArray(0);
  glUseProgram(0);
}

}  // namespace vumo
