#version 300 es
// The benchmark's baseline: one limited-range BT.709 frame stretched over the target, nothing else.
precision highp float;

uniform sampler2D planeY;
uniform sampler2D planeU;
uniform sampler2D planeV;
uniform vec2 outputSize;

out vec4 fragColor;

void main() {
  vec2 uv = vec2(gl_FragCoord.x, outputSize.y - gl_FragCoord.y) / outputSize;
  float y = (texture(planeY, uv).r - 16.0 / 255.0) * (255.0 / 219.0);
  float cb = (texture(planeU, uv).r - 128.0 / 255.0) * (255.0 / 224.0);
  float cr = (texture(planeV, uv).r - 128.0 / 255.0) * (255.0 / 224.0);
  fragColor = vec4(clamp(vec3(y + 1.5748 * cr, y - 0.187324 * cb - 0.468124 * cr, y + 1.8556 * cb), 0.0, 1.0), 1.0);
}
