#version 300 es
// The film pass: turns a finished frame (full-range R'G'B', top row last, as OpenGL orients it)
// into the planes a film encoder takes, BT.709 limited range Y'CbCr 4:2:0, so that only 1.5 bytes
// a pixel come back from the GPU instead of 4.
//
// The target is one RGBA8 texture whose bytes, read back row after row, are the three planes one
// after the other, rows top first: Y' with `pitch` bytes a row, then Cb and then Cr with pitch / 2
// bytes a row. Each texel holds four consecutive bytes. `pitch` is a multiple of 8 and at least
// the width, so four bytes never straddle a row or a plane; bytes beyond the width are padding.
// Cb and Cr are those of the mean of each 2×2 block (the conversion is linear, so this is also the
// mean of the four pixels' Cb and Cr). Width and height are even.
//
// The program is compiled twice: without CHROMA it writes the rows of Y', with CHROMA (defined by
// the renderer after the version line) those of Cb and Cr, each drawn over its own rows only. A
// software rasteriser would otherwise run both halves for every texel.
precision highp float;
precision highp int;

uniform sampler2D frameImage;
uniform ivec4 planeLayout;  // width, height, pitch, unused

out vec4 fragColor;

const vec3 lumaWeights = vec3(0.2126, 0.7152, 0.0722);

vec3 pixelAt(int x, int y) {
  return texelFetch(frameImage, ivec2(x, planeLayout.y - 1 - y), 0).rgb;
}

float luma(vec3 c) {
  return (16.0 + 219.0 * dot(c, lumaWeights)) / 255.0;
}

// Cb and Cr of one colour.
vec2 chroma(vec3 c) {
  float y = dot(c, lumaWeights);
  return (128.0 + 224.0 * vec2((c.b - y) / 1.8556, (c.r - y) / 1.5748)) / 255.0;
}

void main() {
  int width = planeLayout.x;
  int height = planeLayout.y;
  int pitch = planeLayout.z;
  ivec2 texel = ivec2(gl_FragCoord.xy);
  int firstByte = texel.x * 4;
  vec4 bytes = vec4(0.0);
#ifndef CHROMA
  for (int k = 0; k < 4; ++k) {
    int x = firstByte + k;
    if (x < width) bytes[k] = luma(pixelAt(x, texel.y));
  }
#else
  int chromaPitch = pitch / 2;
  int planeBytes = (height / 2) * chromaPitch;
  int offset = (texel.y - height) * pitch + firstByte;
  int plane = offset / planeBytes;  // 0 Cb, 1 Cr
  int inPlane = offset - plane * planeBytes;
  int row = inPlane / chromaPitch;
  int column = inPlane - row * chromaPitch;
  for (int k = 0; k < 4; ++k) {
    int x = 2 * (column + k);
    if (x < width) {
      int y = 2 * row;
      vec3 mean = (pixelAt(x, y) + pixelAt(x + 1, y) + pixelAt(x, y + 1) + pixelAt(x + 1, y + 1)) * 0.25;
      bytes[k] = chroma(mean)[plane];
    }
  }
#endif
  fragColor = bytes;
}
