#pragma once
// The error families of rendering. All of them are execution failures of the command line and keep
// their texts in the localisation table `Media`, beside the other media failures.

#include <string_view>

#include "shared/error.h"

namespace vumo {

// The OpenGL context and what is made on it once: the EGL display and context, the shader
// programs, the sampler, the arrow cursor, and the textures of uploaded frames.
class RenderingContextError : public Error {
 public:
  enum class Case { unavailable, textureCache, cursorTexture, textureCreation };

  // `code` is the payload of `textureCreation` (an EGL or GL error number).
  explicit RenderingContextError(Case kind, std::string_view code = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

class SceneRendererError : public Error {
 public:
  enum class Case { encoderUnavailable, tooManyAnnotations };

  explicit SceneRendererError(Case kind);

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

class ProjectFrameRendererError : public Error {
 public:
  enum class Case { command, render, pixelBuffer, encoding, unavailable };

  // `code` is the payload of `pixelBuffer`.
  explicit ProjectFrameRendererError(Case kind, std::string_view code = {});

  Case kind() const noexcept { return kind_; }
  static const ErrorCatalogue<Case>& catalogue();

 private:
  Case kind_;
};

}  // namespace vumo
