// One 1920 × 1080 frame through the scene renderer (zoom, cursor, rounded corners, gradient
// background), with and without motion blur, against a baseline doing the least any renderer must:
// the same three plane uploads, one plain textured pass that converts YUV, and the readback, on
// the same context. The upload and readback alone are measured too, to show where the time goes
// (on llvmpipe the fragment work runs on the processor's threads, so the ratios use wall time).

#include <GLES3/gl3.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "recording_reporter.h"
#include "rendering/rendering_context.h"
#include "rendering/scene_renderer.h"
#include "shared/files.h"
#include "shared/resources.h"

namespace vumo {
namespace {

constexpr int width = 1920;
constexpr int height = 1080;

struct Planes {
  std::vector<std::uint8_t> y, u, v;
  Planes() : y(width * height), u(width * height / 4), v(width * height / 4) {
    for (int row = 0; row < height; ++row)
      for (int column = 0; column < width; ++column)
        y[static_cast<std::size_t>(row * width + column)] = static_cast<std::uint8_t>(16 + (row + column) % 220);
    for (std::size_t i = 0; i < u.size(); ++i) {
      u[i] = static_cast<std::uint8_t>(64 + i % 128);
      v[i] = static_cast<std::uint8_t>(192 - i % 128);
    }
  }
  DecodedVideoFrame frame() const {
    DecodedVideoFrame f;
    f.width = width;
    f.height = height;
    f.planeCount = 3;
    f.planes = {y.data(), u.data(), v.data()};
    f.strides = {width, width / 2, width / 2};
    return f;
  }
};

struct Fixture {
  std::filesystem::path cache;
  std::shared_ptr<RenderingContext> context;
  std::unique_ptr<SceneRenderer> renderer;
  Planes planes;
  // Baseline objects.
  GLuint program = 0, vertexArray = 0, framebuffer = 0, target = 0;
  GLuint textures[3] = {};
};

Fixture* fixture = nullptr;

GLuint compile(GLenum stage, const std::filesystem::path& file) {
  const std::string source = readFile(file, 256 * 1024);
  const GLuint shader = glCreateShader(stage);
  const char* text = source.c_str();
  glShaderSource(shader, 1, &text, nullptr);
  glCompileShader(shader);
  GLint ok = 0;
  glGetShaderiv(shader, GL_COMPILE_STATUS, &ok);
  if (!ok) {
    std::fprintf(stderr, "cannot compile %s\n", file.c_str());
    std::exit(1);
  }
  return shader;
}

void prepare() {
  fixture = new Fixture();
  // Mesa writes its shader cache under XDG_CACHE_HOME: keep it out of the real home.
  fixture->cache = std::filesystem::temp_directory_path() / ("vumo-bench-cache-" + std::to_string(::getpid()));
  std::filesystem::create_directories(fixture->cache);
  ::setenv("XDG_CACHE_HOME", fixture->cache.c_str(), 1);
  const auto resources = ResourceLocator::directory();
  if (!resources) {
    std::fprintf(stderr, "no resources folder beside the benchmark\n");
    std::exit(1);
  }
  fixture->context = RenderingContext::create(*resources);
  fixture->renderer = std::make_unique<SceneRenderer>(fixture->context, TextRasterSources{});
  std::printf("renderer: %s\n", fixture->context->rendererName().c_str());

  RenderingContext::Current current(*fixture->context);
  Fixture& f = *fixture;
  f.program = glCreateProgram();
  glAttachShader(f.program, compile(GL_VERTEX_SHADER, *resources / "shaders" / "scene.vert"));
  glAttachShader(f.program, compile(GL_FRAGMENT_SHADER, VUMO_BENCH_PLAIN_SHADER));
  glLinkProgram(f.program);
  glUseProgram(f.program);
  glUniform1i(glGetUniformLocation(f.program, "planeY"), 0);
  glUniform1i(glGetUniformLocation(f.program, "planeU"), 1);
  glUniform1i(glGetUniformLocation(f.program, "planeV"), 2);
  glUniform2f(glGetUniformLocation(f.program, "outputSize"), width, height);
  glGenVertexArrays(1, &f.vertexArray);
  glGenTextures(3, f.textures);
  for (int i = 0; i < 3; ++i) {
    const int w = i == 0 ? width : width / 2, h = i == 0 ? height : height / 2;
    glBindTexture(GL_TEXTURE_2D, f.textures[i]);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_R8, w, h, 0, GL_RED, GL_UNSIGNED_BYTE, nullptr);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
  }
  glGenTextures(1, &f.target);
  glBindTexture(GL_TEXTURE_2D, f.target);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  glGenFramebuffers(1, &f.framebuffer);
  glBindFramebuffer(GL_FRAMEBUFFER, f.framebuffer);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, f.target, 0);
}

void upload() {
  const Fixture& f = *fixture;
  const std::uint8_t* data[3] = {f.planes.y.data(), f.planes.u.data(), f.planes.v.data()};
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  for (int i = 0; i < 3; ++i) {
    const int w = i == 0 ? width : width / 2, h = i == 0 ? height : height / 2;
    glPixelStorei(GL_UNPACK_ROW_LENGTH, w);
    glActiveTexture(GL_TEXTURE0 + i);
    glBindTexture(GL_TEXTURE_2D, f.textures[i]);
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, w, h, GL_RED, GL_UNSIGNED_BYTE, data[i]);
  }
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
}

void readBack(std::vector<std::uint8_t>& pixels) {
  glBindFramebuffer(GL_FRAMEBUFFER, fixture->framebuffer);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
}

// Variant 0: the measured scene; 1: the same with motion blur; 2: the bare frame (no zoom, cursor,
// corners or padding), which isolates the fixed cost of the two passes.
SceneState scene(int variant) {
  SceneState state;
  if (variant == 2) {
    state.canvas.padding = 0;
    state.canvas.cornerRadius = 0;
    state.cursor.visible = false;
    return state;
  }
  const bool motionBlur = variant == 1;
  state.camera = {{0.4, 0.45}, 1.8};
  if (motionBlur) state.motionBlurCamera = CameraState{{0.45, 0.48}, 1.5};
  state.canvas.background = CanvasBackground::gradient;
  state.canvas.padding = 0.08;
  state.canvas.cornerRadius = 0.03;
  state.cursor.visible = true;
  state.cursor.outputPosition = {0.45, 0.5};
  return state;
}

void BM_PlainPass(benchmark::State& state) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
  RenderingContext::Current current(*fixture->context);
  for (auto _ : state) {
    upload();
    glBindFramebuffer(GL_FRAMEBUFFER, fixture->framebuffer);
    glViewport(0, 0, width, height);
    glUseProgram(fixture->program);
    glBindVertexArray(fixture->vertexArray);
    for (GLuint unit = 0; unit < 3; ++unit) glBindSampler(unit, 0);
    glDrawArrays(GL_TRIANGLES, 0, 3);
    readBack(pixels);
    benchmark::DoNotOptimize(pixels.data());
  }
}

void BM_UploadOnly(benchmark::State& state) {
  RenderingContext::Current current(*fixture->context);
  for (auto _ : state) {
    upload();
    glFinish();
  }
}

void BM_ReadbackOnly(benchmark::State& state) {
  std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
  RenderingContext::Current current(*fixture->context);
  for (auto _ : state) {
    readBack(pixels);
    benchmark::DoNotOptimize(pixels.data());
  }
}

void BM_Scene(benchmark::State& state) {
  SceneFrames frames;
  frames.sourceSize = {width, height};
  frames.screen = fixture->planes.frame();
  const SceneState sceneState = scene(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(fixture->renderer->render(sceneState, frames, {width, height}));
}

BENCHMARK(BM_PlainPass)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_UploadOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadbackOnly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Scene)->Arg(0)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vumo

int main(int argc, char** argv) {
  using vumo::bench::Clock;
  const int status = vumo::bench::runAndCompare(
      argc, argv,
      {{"scene (zoom, cursor, corners, gradient) / plain pass", "BM_Scene/0", "BM_PlainPass", {}, 1, Clock::wall},
       {"scene with motion blur (8 samples) / plain pass", "BM_Scene/1", "BM_PlainPass", {}, 1, Clock::wall},
       {"scene with motion blur / scene", "BM_Scene/1", "BM_Scene/0", {}, 1, Clock::wall},
       {"bare frame through both passes / plain pass", "BM_Scene/2", "BM_PlainPass", {}, 1, Clock::wall},
       {"plane upload share of the plain pass", "BM_UploadOnly", "BM_PlainPass", {}, 1, Clock::wall},
       {"readback share of the plain pass", "BM_ReadbackOnly", "BM_PlainPass", {}, 1, Clock::wall}},
      vumo::prepare);
  if (vumo::fixture != nullptr) {
    vumo::fixture->renderer.reset();
    std::filesystem::remove_all(vumo::fixture->cache);
  }
  return status;
}
