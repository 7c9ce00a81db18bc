#pragma once
// The OpenGL ES 3.0 context every picture is drawn with: a surfaceless EGL context, the scene,
// annotation and film-plane programs compiled from the shader files of the resources folder, the one sampler, and
// the arrow cursor drawn where a recording has no cursor shape of its own.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

#include "shared/geometry.h"

namespace vumo {

class RenderingContext {
 public:
  // Throws RenderingContextError: `unavailable` when EGL, the context or a program cannot be
  // made, `cursorTexture` when the arrow picture cannot be read.
  static std::shared_ptr<RenderingContext> create(const std::filesystem::path& resourceDirectory);

  ~RenderingContext();
  RenderingContext(const RenderingContext&) = delete;
  RenderingContext& operator=(const RenderingContext&) = delete;

  // Makes the context current on this thread for the guard's lifetime; one thread at a time, the
  // others wait. Not re-entrant.
  class Current {
   public:
    explicit Current(RenderingContext& context);
    ~Current();
    Current(const Current&) = delete;
    Current& operator=(const Current&) = delete;

   private:
    RenderingContext& context_;
    std::unique_lock<std::mutex> lock_;
  };

  const std::filesystem::path& resourceDirectory() const { return resourceDirectory_; }
  // GL names, valid while the context lives; use them only while it is current.
  // The scene program with exactly the parts in `features` (SceneFeature bits), compiled on first
  // use and kept. Only while the context is current. Throws RenderingContextError::unavailable.
  std::uint32_t sceneProgram(std::uint32_t features);
  std::uint32_t annotationProgram() const;
  // The film pass (film_planes.frag) for the Y' rows or for the Cb and Cr rows, compiled on first
  // use: only exports need it. Only while the context is current. Throws
  // RenderingContextError::unavailable.
  std::uint32_t filmPlanesProgram(bool chroma);
  std::uint32_t sampler() const;
  std::uint32_t cursorTexture() const;
  SizeValue cursorSize() const { return cursorSize_; }         // points
  PointValue cursorHotSpot() const { return cursorHotSpot_; }  // points
  // GL_RENDERER, for reports ("llvmpipe (...)" on the software rasteriser).
  const std::string& rendererName() const { return rendererName_; }
  int maximumTextureSize() const { return maximumTextureSize_; }

 private:
  struct Objects;

  RenderingContext();

  std::filesystem::path resourceDirectory_;
  void* display_ = nullptr;  // EGLDisplay
  void* context_ = nullptr;  // EGLContext
  std::mutex mutex_;
  std::unique_ptr<Objects> objects_;
  SizeValue cursorSize_;
  PointValue cursorHotSpot_;
  std::string rendererName_;
  int maximumTextureSize_ = 2048;
};

}  // namespace vumo
