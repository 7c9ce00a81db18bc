#version 300 es
// The scene pass: background, screen, device frame, cursor, click effect, camera overlay and
// caption, composited in that order. Positions are output pixels with the origin at the top left;
// the vector layout of SceneBlock is documented in src/rendering/scene_uniforms.h.
//
// The program is compiled once per combination of the features a frame uses (MOTION_BLUR,
// SCREEN_SHADOW, DEVICE_FRAME, CURSOR, CLICK_EFFECT, CAMERA, CAPTION, BACKGROUND_IMAGE,
// BACKGROUND_VIDEO, and SCREEN_NV12, CAMERA_NV12, BACKGROUND_NV12 for two-plane frames; defined
// by the renderer after the version line): a software rasteriser runs every instruction of a
// shader for every pixel, taken branch or not.
precision highp float;
precision highp int;

layout(std140) uniform SceneBlock {
  vec4 u[21];
};

uniform sampler2D screenY;
uniform sampler2D screenU;
uniform sampler2D screenV;
uniform sampler2D cameraY;
uniform sampler2D cameraU;
uniform sampler2D cameraV;
uniform sampler2D backgroundY;  // also the background picture (premultiplied RGBA)
uniform sampler2D backgroundU;
uniform sampler2D backgroundV;
uniform sampler2D deviceFrame;
uniform sampler2D cursorImage;
uniform sampler2D captionImage;

out vec4 fragColor;

#ifdef SCREEN_NV12
const bool screenNv12 = true;
#else
const bool screenNv12 = false;
#endif
#ifdef CAMERA_NV12
const bool cameraNv12 = true;
#else
const bool cameraNv12 = false;
#endif
#ifdef BACKGROUND_NV12
const bool backgroundNv12 = true;
#else
const bool backgroundNv12 = false;
#endif

// format: x plane layout (0 none, 1 yuv420p, 2 nv12), y full range, z matrix (0 BT.709, 1 BT.601, 2 BT.2020).
vec3 yuvToRgb(vec3 yuv, vec4 format) {
  float y = yuv.x;
  float cb = yuv.y - 128.0 / 255.0;
  float cr = yuv.z - 128.0 / 255.0;
  if (format.y < 0.5) {
    y = (y - 16.0 / 255.0) * (255.0 / 219.0);
    cb *= 255.0 / 224.0;
    cr *= 255.0 / 224.0;
  }
  vec3 rgb;
  if (format.z < 0.5) {
    rgb = vec3(y + 1.5748 * cr, y - 0.187324 * cb - 0.468124 * cr, y + 1.8556 * cb);
  } else if (format.z < 1.5) {
    rgb = vec3(y + 1.402 * cr, y - 0.344136 * cb - 0.714136 * cr, y + 1.772 * cb);
  } else {
    rgb = vec3(y + 1.4746 * cr, y - 0.164553 * cb - 0.571353 * cr, y + 1.8814 * cb);
  }
  return clamp(rgb, 0.0, 1.0);
}

// `nv12` is a constant at every call, so only one way of reading chroma is compiled.
vec3 samplePlanes(sampler2D planeY, sampler2D planeU, sampler2D planeV, vec4 format, vec2 uv, bool nv12) {
  if (format.x < 0.5) return vec3(0.0);
  float y = texture(planeY, uv).r;
  vec2 chroma = nv12 ? texture(planeU, uv).rg : vec2(texture(planeU, uv).r, texture(planeV, uv).r);
  return yuvToRgb(vec3(y, chroma), format);
}

// Signed distance to a rectangle (x, y, width, height) with rounded corners: negative inside.
float roundedBoxDistance(vec2 p, vec4 rect, float radius) {
  vec2 halfSize = rect.zw * 0.5;
  float r = min(radius, min(halfSize.x, halfSize.y));
  vec2 q = abs(p - (rect.xy + halfSize)) - halfSize + r;
  return length(max(q, 0.0)) + min(max(q.x, q.y), 0.0) - r;
}

bool inside(vec2 local) {
  return all(greaterThanEqual(local, vec2(0.0))) && all(lessThanEqual(local, vec2(1.0)));
}

vec3 over(vec4 premultiplied, vec3 below, float coverage) {
  return premultiplied.rgb * coverage + below * (1.0 - premultiplied.a * coverage);
}

// The recording at `local` (0...1 across the content rectangle) seen through a camera.
vec3 sampleScreen(vec2 local, vec3 camera) {
  vec2 source = clamp(camera.xy + (local - 0.5) / camera.z, 0.0, 1.0);
  return samplePlanes(screenY, screenU, screenV, u[17], u[6].xy + source * u[6].zw, screenNv12);
}

#ifdef MOTION_BLUR
vec3 screenColour(vec2 local) {
  // A constant count lets the loop unroll; the block says 8 (motionBlurSampleCount) as well.
  const int samples = 8;
  vec3 sum = vec3(0.0);
  for (int i = 0; i < samples; ++i) {
    float t = float(i) / float(samples - 1);
    sum += sampleScreen(local, mix(u[5].xyz, u[4].xyz, t));
  }
  return sum / float(samples);
}
#else
vec3 screenColour(vec2 local) { return sampleScreen(local, u[4].xyz); }
#endif

#ifdef CLICK_EFFECT
float clickAlpha(vec2 p) {
  float progress = u[11].z;
  float base = u[12].z;
  float style = u[11].w;
  float d = length(p - u[12].xy);
  if (style < 0.5) {
    float radius = base * (0.4 + 0.8 * progress);
    return 0.55 * (1.0 - progress) * clamp(radius - d + 0.5, 0.0, 1.0);
  }
  float radius = base * (0.3 + progress);
  float width = max(base * 0.15, 1.5);
  float alpha = 0.9 * (1.0 - progress) * clamp(width * 0.5 - abs(d - radius) + 0.5, 0.0, 1.0);
  if (style > 1.5 && progress < 0.4) {
    float press = 0.7 * (1.0 - progress / 0.4) * clamp(base * 0.35 - d + 0.5, 0.0, 1.0);
    alpha = max(alpha, press);
  }
  return alpha;
}
#endif

void main() {
  vec2 outputSize = u[0].xy;
  vec2 p = vec2(gl_FragCoord.x, outputSize.y - gl_FragCoord.y);
  vec2 fraction = p / outputSize;

  vec3 colour;
#if defined(BACKGROUND_VIDEO)
  colour = samplePlanes(backgroundY, backgroundU, backgroundV, u[19], fraction * u[9].xy + u[9].zw, backgroundNv12);
#elif defined(BACKGROUND_IMAGE)
  colour = over(texture(backgroundY, fraction * u[9].xy + u[9].zw), u[7].rgb, 1.0);
#else
  colour = mix(u[7].rgb, u[8].rgb, clamp((fraction.x + fraction.y) * 0.5, 0.0, 1.0));
#endif

  vec4 screenRect = u[1];
  float radius = u[0].z;
#ifdef SCREEN_SHADOW
  {
    float blur = max(outputSize.y * 0.025, 1.0);
    float d = roundedBoxDistance(p - vec2(0.0, blur * 0.4), screenRect, radius);
    colour *= 1.0 - 0.45 * (1.0 - smoothstep(-blur, blur, d));
  }
#endif

  float screenCover = clamp(0.5 - roundedBoxDistance(p, screenRect, radius), 0.0, 1.0);
  if (screenRect.z > 0.0 && screenCover > 0.0) {
    vec2 local = (p - u[2].xy) / u[2].zw;
    vec3 content = inside(local) ? screenColour(local) : vec3(0.0);
    colour = mix(colour, content, screenCover);
  }

#ifdef DEVICE_FRAME
  {
    vec2 local = (p - u[3].xy) / u[3].zw;
    if (inside(local)) colour = over(texture(deviceFrame, local), colour, 1.0);
  }
#endif

#ifdef CURSOR
  if (screenCover > 0.0) {
    vec2 local = (p - u[10].xy) / u[10].zw;
    if (inside(local)) colour = over(texture(cursorImage, local), colour, screenCover);
  }
#endif

#ifdef CLICK_EFFECT
  if (screenCover > 0.0) colour = mix(colour, vec3(1.0), clickAlpha(p) * screenCover);
#endif

#ifdef CAMERA
  {
    vec4 rect = vec4(u[13].xy * outputSize, u[13].zw * outputSize);
    float progress = u[15].y;
    float cameraRadius = u[14].y * 0.5 * min(rect.z, rect.w) * (1.0 - progress);
    float border = u[14].z * (1.0 - progress);
    float d = roundedBoxDistance(p, rect, cameraRadius);
    if (u[14].w > 0.5) {
      float blur = max(min(rect.z, rect.w) * 0.08, 2.0);
      float shadowDistance = roundedBoxDistance(p - vec2(0.0, blur * 0.3), rect, cameraRadius);
      colour *= 1.0 - 0.4 * (1.0 - progress) * (1.0 - smoothstep(-blur * 0.5, blur, shadowDistance));
    }
    float cover = clamp(0.5 - d, 0.0, 1.0);
    if (cover > 0.0) {
      vec2 local = clamp((p - rect.xy) / rect.zw, 0.0, 1.0);
      if (u[14].x > 0.5) local.x = 1.0 - local.x;
      vec3 camera = samplePlanes(cameraY, cameraU, cameraV, u[18], local * u[20].xy + u[20].zw, cameraNv12);
      if (border > 0.0) camera = mix(vec3(1.0), camera, clamp(0.5 - (d + border), 0.0, 1.0));
      colour = mix(colour, camera, cover);
    }
  }
#endif

#ifdef CAPTION
  {
    vec2 local = (p - u[16].xy) / u[16].zw;
    if (inside(local)) colour = over(texture(captionImage, local), colour, 1.0);
  }
#endif

  fragColor = vec4(colour, 1.0);
}
