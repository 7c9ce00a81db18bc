#pragma once
// Move-only owners of OpenGL names. Each is made and freed on a thread that holds the context
// current (RenderingContext::Current); none of them outlives its context.

#include <GLES3/gl3.h>

#include <utility>

namespace vumo::gl {

template <void (*Free)(GLuint)>
class Name {
 public:
  Name() = default;
  explicit Name(GLuint id) : id_(id) {}
  Name(Name&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  Name& operator=(Name&& other) noexcept {
    if (this != &other) {
      reset();
      id_ = std::exchange(other.id_, 0);
    }
    return *this;
  }
  Name(const Name&) = delete;
  Name& operator=(const Name&) = delete;
  ~Name() { reset(); }

  GLuint get() const { return id_; }
  explicit operator bool() const { return id_ != 0; }
  void reset() {
    if (id_ != 0) Free(id_);
    id_ = 0;
  }

 private:
  GLuint id_ = 0;
};

inline void freeTexture(GLuint id) { glDeleteTextures(1, &id); }
inline void freeFramebuffer(GLuint id) { glDeleteFramebuffers(1, &id); }
inline void freeBuffer(GLuint id) { glDeleteBuffers(1, &id); }
inline void freeVertexArray(GLuint id) { glDeleteVertexArrays(1, &id); }
inline void freeSampler(GLuint id) { glDeleteSamplers(1, &id); }
inline void freeProgram(GLuint id) { glDeleteProgram(id); }
inline void freeShader(GLuint id) { glDeleteShader(id); }

using Texture = Name<freeTexture>;
using Framebuffer = Name<freeFramebuffer>;
using Buffer = Name<freeBuffer>;
using VertexArray = Name<freeVertexArray>;
using Sampler = Name<freeSampler>;
using Program = Name<freeProgram>;
using Shader = Name<freeShader>;

inline Texture makeTexture() {
  GLuint id = 0;
  glGenTextures(1, &id);
  return Texture(id);
}
inline Framebuffer makeFramebuffer() {
  GLuint id = 0;
  glGenFramebuffers(1, &id);
  return Framebuffer(id);
}
inline Buffer makeBuffer() {
  GLuint id = 0;
  glGenBuffers(1, &id);
  return Buffer(id);
}
inline VertexArray makeVertexArray() {
  GLuint id = 0;
  glGenVertexArrays(1, &id);
  return VertexArray(id);
}

// A premultiplied RGBA picture as an immutable-size texture, rows top first.
inline Texture uploadRGBA(int width, int height, const void* pixels) {
  Texture texture = makeTexture();
  glBindTexture(GL_TEXTURE_2D, texture.get());
  glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, pixels);
  return texture;
}

}  // namespace vumo::gl
