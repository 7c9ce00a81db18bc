#include "rendering/rendering_context.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES3/gl3.h>

#include <array>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "media/still_image.h"
#include "rendering/gl_objects.h"
#include "rendering/rendering_errors.h"
#include "rendering/scene_uniforms.h"
#include "shared/document_limits.h"
#include "shared/files.h"
#include "shared/json.h"

namespace vumo {

namespace {

constexpr std::size_t shaderBytes = 256 * 1024;

bool hasExtension(const char* list, std::string_view name) {
  if (list == nullptr) return false;
  std::string_view rest(list);
  while (!rest.empty()) {
    const std::size_t space = rest.find(' ');
    if (rest.substr(0, space) == name) return true;
    if (space == std::string_view::npos) break;
    rest.remove_prefix(space + 1);
  }
  return false;
}

[[noreturn]] void unavailable() { throw RenderingContextError(RenderingContextError::Case::unavailable); }

// The display: Mesa's surfaceless platform when offered (no window system, works on llvmpipe),
// else the first EGL device, else whatever the default display is.
EGLDisplay openDisplay() {
  const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
  auto getPlatformDisplay =
      reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
  if (getPlatformDisplay != nullptr && hasExtension(clientExtensions, "EGL_MESA_platform_surfaceless")) {
    EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (display != EGL_NO_DISPLAY && eglInitialize(display, nullptr, nullptr)) return display;
  }
  auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
  if (getPlatformDisplay != nullptr && queryDevices != nullptr &&
      hasExtension(clientExtensions, "EGL_EXT_platform_device")) {
    std::array<EGLDeviceEXT, 8> devices{};
    EGLint count = 0;
    if (queryDevices(static_cast<EGLint>(devices.size()), devices.data(), &count) && count > 0) {
      EGLDisplay display = getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, devices[0], nullptr);
      if (display != EGL_NO_DISPLAY && eglInitialize(display, nullptr, nullptr)) return display;
    }
  }
  EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
  if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) unavailable();
  return display;
}

EGLContext openContext(EGLDisplay display) {
  if (!hasExtension(eglQueryString(display, EGL_EXTENSIONS), "EGL_KHR_surfaceless_context")) unavailable();
  if (!eglBindAPI(EGL_OPENGL_ES_API)) unavailable();
  EGLConfig config = nullptr;
  if (!hasExtension(eglQueryString(display, EGL_EXTENSIONS), "EGL_KHR_no_config_context")) {
    const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES3_BIT, EGL_NONE};
    EGLint count = 0;
    if (!eglChooseConfig(display, wanted, &config, 1, &count) || count < 1) unavailable();
  }
  const EGLint attributes[] = {EGL_CONTEXT_MAJOR_VERSION, 3, EGL_CONTEXT_MINOR_VERSION, 0, EGL_NONE};
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, attributes);
  if (context == EGL_NO_CONTEXT) unavailable();
  return context;
}

std::string readShader(const std::filesystem::path& file) {
  try {
    return readFile(file, shaderBytes);
  } catch (const Error&) {
    unavailable();
  }
}

// Feature switches go right after the version line, which must come first in GLSL ES.
std::string withDefines(const std::string& source, std::uint32_t features) {
  static constexpr std::pair<SceneFeature, const char*> names[] = {
      {motionBlurFeature, "MOTION_BLUR"},
      {screenShadowFeature, "SCREEN_SHADOW"},
      {deviceFrameFeature, "DEVICE_FRAME"},
      {cursorFeature, "CURSOR"},
      {clickEffectFeature, "CLICK_EFFECT"},
      {cameraFeature, "CAMERA"},
      {captionFeature, "CAPTION"},
      {backgroundImageFeature, "BACKGROUND_IMAGE"},
      {backgroundVideoFeature, "BACKGROUND_VIDEO"},
      {screenNv12Feature, "SCREEN_NV12"},
      {cameraNv12Feature, "CAMERA_NV12"},
      {backgroundNv12Feature, "BACKGROUND_NV12"},
  };
  const std::size_t lineEnd = source.find('\n');
  if (source.rfind("#version", 0) != 0 || lineEnd == std::string::npos) unavailable();
  std::string result = source.substr(0, lineEnd + 1);
  for (const auto& [feature, name] : names)
    if (features & feature) result += std::string("#define ") + name + " 1\n";
  result += source.substr(lineEnd + 1);
  return result;
}

gl::Shader compile(GLenum stage, const std::string& source) {
  gl::Shader shader(glCreateShader(stage));
  const char* text = source.c_str();
  const GLint length = static_cast<GLint>(source.size());
  glShaderSource(shader.get(), 1, &text, &length);
  glCompileShader(shader.get());
  GLint ok = GL_FALSE;
  glGetShaderiv(shader.get(), GL_COMPILE_STATUS, &ok);
  if (ok != GL_TRUE) unavailable();
  return shader;
}

gl::Program link(const gl::Shader& vertex, const gl::Shader& fragment) {
  if (!vertex || !fragment) unavailable();
  gl::Program program(glCreateProgram());
  glAttachShader(program.get(), vertex.get());
  glAttachShader(program.get(), fragment.get());
  glLinkProgram(program.get());
  GLint ok = GL_FALSE;
  glGetProgramiv(program.get(), GL_LINK_STATUS, &ok);
  if (ok != GL_TRUE) unavailable();
  return program;
}

// Sampler units and block bindings are fixed at creation; the renderer binds to the same numbers.
void bindSlots(GLuint program, const std::vector<std::string_view>& samplers,
               const std::vector<std::string_view>& blocks) {
  glUseProgram(program);
  for (std::size_t unit = 0; unit < samplers.size(); ++unit) {
    const GLint location = glGetUniformLocation(program, std::string(samplers[unit]).c_str());
    if (location >= 0) glUniform1i(location, static_cast<GLint>(unit));
  }
  for (std::size_t binding = 0; binding < blocks.size(); ++binding) {
    const GLuint index = glGetUniformBlockIndex(program, std::string(blocks[binding]).c_str());
    if (index == GL_INVALID_INDEX) unavailable();
    glUniformBlockBinding(program, index, static_cast<GLuint>(binding));
  }
  glUseProgram(0);
}

const std::vector<std::string_view> sceneSamplers = {"screenY",     "screenU",     "screenV",     "cameraY",
                                                     "cameraU",     "cameraV",     "backgroundY", "backgroundU",
                                                     "backgroundV", "deviceFrame", "cursorImage", "captionImage"};

gl::Program sceneVariant(const gl::Shader& vertex, const std::string& source, std::uint32_t features) {
  gl::Program program = link(vertex, compile(GL_FRAGMENT_SHADER, withDefines(source, features)));
  bindSlots(program.get(), sceneSamplers, {"SceneBlock"});
  return program;
}

}  // namespace

struct RenderingContext::Objects {
  gl::Shader vertex;
  std::string sceneSource;
  std::map<std::uint32_t, gl::Program> scenes;
  gl::Program annotation;
  std::string filmPlanesSource;
  std::array<gl::Program, 2> filmPlanes;  // Y', then Cb and Cr
  gl::Sampler sampler;
  gl::Texture cursor;
};

std::shared_ptr<RenderingContext> RenderingContext::create(const std::filesystem::path& resourceDirectory) {
  std::shared_ptr<RenderingContext> result(new RenderingContext());
  result->resourceDirectory_ = resourceDirectory;
  EGLDisplay display = openDisplay();
  result->display_ = display;
  result->context_ = openContext(display);

  Current current(*result);
  const std::filesystem::path shaders = resourceDirectory / "shaders";
  Objects& objects = *result->objects_;
  objects.vertex = compile(GL_VERTEX_SHADER, readShader(shaders / "scene.vert"));
  objects.sceneSource = readShader(shaders / "scene.frag");
  objects.filmPlanesSource = readShader(shaders / "film_planes.frag");
  gl::Program annotation = link(objects.vertex, compile(GL_FRAGMENT_SHADER, readShader(shaders / "annotation.frag")));
  // Only the barest scene program now, so a shader file that does not compile at all fails here;
  // every other variant is compiled when a frame first needs it, since on the software rasteriser
  // each one costs a noticeable part of a cold still.
  objects.scenes.emplace(0u, sceneVariant(objects.vertex, objects.sceneSource, 0u));
  bindSlots(annotation.get(), {"sceneImage", "textAtlas"},
            {"AnnotationHeaderBlock", "AnnotationBlock", "TextPlacementBlock"});

  GLuint sampler = 0;
  glGenSamplers(1, &sampler);
  gl::Sampler samplerOwner(sampler);
  glSamplerParameteri(sampler, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
  glSamplerParameteri(sampler, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  glSamplerParameteri(sampler, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
  glSamplerParameteri(sampler, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  if (glGetError() != GL_NO_ERROR) unavailable();

  // The arrow drawn where the recording has no cursor shape: a picture and its logical geometry.
  gl::Texture cursor;
  try {
    const std::filesystem::path folder = resourceDirectory / "cursors";
    const StillImage image = decodeStillImage(readFile(folder / "arrow.png", documentLimits::cursorAssetBytes));
    const Json description = parseJson(readFile(folder / "arrow.json", documentLimits::cursorAssetBytes));
    result->cursorSize_ = description.at("logicalSize").get<SizeValue>();
    result->cursorHotSpot_ = description.at("hotSpot").get<PointValue>();
    if (image.isEmpty() || !(result->cursorSize_.width > 0) || !(result->cursorSize_.height > 0))
      throw RenderingContextError(RenderingContextError::Case::cursorTexture);
    cursor = gl::uploadRGBA(image.width, image.height, image.pixels.data());
  } catch (const RenderingContextError&) {
    throw;
  } catch (const std::exception&) {
    throw RenderingContextError(RenderingContextError::Case::cursorTexture);
  }
  if (glGetError() != GL_NO_ERROR) throw RenderingContextError(RenderingContextError::Case::cursorTexture);

  const char* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  result->rendererName_ = renderer != nullptr ? renderer : "";
  GLint maximumSize = 0;
  glGetIntegerv(GL_MAX_TEXTURE_SIZE, &maximumSize);
  if (maximumSize > 0) result->maximumTextureSize_ = maximumSize;

  result->objects_->annotation = std::move(annotation);
  result->objects_->sampler = std::move(samplerOwner);
  result->objects_->cursor = std::move(cursor);
  return result;
}

RenderingContext::RenderingContext() : objects_(std::make_unique<Objects>()) {}

RenderingContext::~RenderingContext() {
  auto display = static_cast<EGLDisplay>(display_);
  auto context = static_cast<EGLContext>(context_);
  if (context != EGL_NO_CONTEXT && context != nullptr) {
    {
      Current current(*this);
      objects_.reset();
    }
    eglDestroyContext(display, context);
  }
  // The display stays initialised: EGL displays are shared by the whole process, and another
  // context may still be drawing on it.
}

RenderingContext::Current::Current(RenderingContext& context) : context_(context), lock_(context.mutex_) {
  if (!eglMakeCurrent(static_cast<EGLDisplay>(context_.display_), EGL_NO_SURFACE, EGL_NO_SURFACE,
                      static_cast<EGLContext>(context_.context_)))
    unavailable();
}

RenderingContext::Current::~Current() {
  eglMakeCurrent(static_cast<EGLDisplay>(context_.display_), EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

std::uint32_t RenderingContext::sceneProgram(std::uint32_t features) {
  auto found = objects_->scenes.find(features);
  if (found == objects_->scenes.end())
    found = objects_->scenes.emplace(features, sceneVariant(objects_->vertex, objects_->sceneSource, features)).first;
  return found->second.get();
}
std::uint32_t RenderingContext::annotationProgram() const { return objects_->annotation.get(); }
std::uint32_t RenderingContext::filmPlanesProgram(bool chroma) {
  gl::Program& program = objects_->filmPlanes[chroma ? 1 : 0];
  if (!program) {
    const std::string& source = objects_->filmPlanesSource;
    const std::size_t lineEnd = source.find('\n');
    if (source.rfind("#version", 0) != 0 || lineEnd == std::string::npos) unavailable();
    const std::string text =
        chroma ? source.substr(0, lineEnd + 1) + "#define CHROMA 1\n" + source.substr(lineEnd + 1) : source;
    gl::Program linked = link(objects_->vertex, compile(GL_FRAGMENT_SHADER, text));
    bindSlots(linked.get(), {"frameImage"}, {});
    program = std::move(linked);
  }
  return program.get();
}
std::uint32_t RenderingContext::sampler() const { return objects_->sampler.get(); }
std::uint32_t RenderingContext::cursorTexture() const { return objects_->cursor.get(); }

}  // namespace vumo
