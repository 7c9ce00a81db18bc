#include "rendering/rendering_errors.h"

namespace vumo {

namespace {

constexpr std::string_view mediaTable = "Media";

using Context = RenderingContextError::Case;
constexpr ErrorCase<Context> contextCases[] = {
    {Context::unavailable, "unavailable", "media.metal.unavailable",
     "This computer could not create the required OpenGL rendering pipeline.", "execution", ErrorKind::failure},
    {Context::textureCache, "textureCache", "media.metal.textureCache",
     "The OpenGL video texture cache could not be created.", "execution", ErrorKind::failure},
    {Context::cursorTexture, "cursorTexture", "media.metal.cursorTexture",
     "An OpenGL texture could not be created from the arrow cursor.", "execution", ErrorKind::failure},
    {Context::textureCreation, "textureCreation", "media.metal.textureCreation",
     "An OpenGL texture could not be created from the video frame (error {}).", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(contextCases));

using Renderer = SceneRendererError::Case;
constexpr ErrorCase<Renderer> rendererCases[] = {
    {Renderer::encoderUnavailable, "encoderUnavailable", "media.metal.encoder",
     "An OpenGL render command encoder could not be created.", "execution", ErrorKind::failure},
    {Renderer::tooManyAnnotations, "tooManyAnnotations", "media.metal.annotationLimit",
     "No more than 16 static annotations can be rendered at once.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(rendererCases));

using Frame = ProjectFrameRendererError::Case;
constexpr ErrorCase<Frame> frameCases[] = {
    {Frame::command, "command", "media.frame.command", "An OpenGL command buffer could not be created for the frame.",
     "execution", ErrorKind::failure},
    {Frame::render, "render", "media.frame.render", "OpenGL rendering failed for the frame.", "execution",
     ErrorKind::failure},
    {Frame::pixelBuffer, "pixelBuffer", "media.frame.pixelBuffer",
     "A pixel buffer could not be created for the frame (error {}).", "execution", ErrorKind::failure},
    {Frame::encoding, "encoding", "media.frame.encoding", "The frame image could not be encoded.", "execution",
     ErrorKind::failure},
    {Frame::unavailable, "unavailable", "media.frame.unavailable",
     "A preview frame is temporarily unavailable at the requested time.", "execution", ErrorKind::failure},
};
static_assert(inCaseOrder(frameCases));

}  // namespace

RenderingContextError::RenderingContextError(Case kind, std::string_view code)
    : Error(catalogue(), kind, code), kind_(kind) {}

const ErrorCatalogue<RenderingContextError::Case>& RenderingContextError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"RenderingContextError", mediaTable, contextCases};
  return catalogue;
}

SceneRendererError::SceneRendererError(Case kind) : Error(catalogue(), kind), kind_(kind) {}

const ErrorCatalogue<SceneRendererError::Case>& SceneRendererError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"SceneRendererError", mediaTable, rendererCases};
  return catalogue;
}

ProjectFrameRendererError::ProjectFrameRendererError(Case kind, std::string_view code)
    : Error(catalogue(), kind, code), kind_(kind) {}

const ErrorCatalogue<ProjectFrameRendererError::Case>& ProjectFrameRendererError::catalogue() {
  static constexpr ErrorCatalogue<Case> catalogue{"ProjectFrameRendererError", mediaTable, frameCases};
  return catalogue;
}

}  // namespace vumo
