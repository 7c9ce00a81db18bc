#version 300 es
// The annotation pass: reads the finished scene and draws the annotations over it in order.
// Geometry is in output fractions; line widths are shares of the output's shorter side. The
// layouts of the three blocks are documented in src/rendering/scene_uniforms.h.
precision highp float;
precision highp int;

layout(std140) uniform AnnotationHeaderBlock {
  vec4 header[4];
};
layout(std140) uniform AnnotationBlock {
  vec4 annotations[48];  // geometry, colour, options per annotation
};
layout(std140) uniform TextPlacementBlock {
  vec4 placements[32];  // atlas rectangle, output rectangle per annotation (px)
};

uniform sampler2D sceneImage;
uniform sampler2D textAtlas;

out vec4 fragColor;

float outputHeight() { return header[0].y; }

vec3 sceneAt(vec2 p) {
  ivec2 size = textureSize(sceneImage, 0);
  ivec2 texel = clamp(ivec2(floor(vec2(p.x, outputHeight() - p.y))), ivec2(0), size - 1);
  return texelFetch(sceneImage, texel, 0).rgb;
}

float roundedBoxDistance(vec2 p, vec4 rect, float radius) {
  vec2 halfSize = rect.zw * 0.5;
  float r = min(radius, min(halfSize.x, halfSize.y));
  vec2 q = abs(p - (rect.xy + halfSize)) - halfSize + r;
  return length(max(q, 0.0)) + min(max(q.x, q.y), 0.0) - r;
}

float ellipseDistance(vec2 p, vec4 rect) {
  vec2 radii = max(rect.zw * 0.5, vec2(0.5));
  vec2 q = (p - (rect.xy + rect.zw * 0.5)) / radii;
  return (length(q) - 1.0) * min(radii.x, radii.y);
}

float segmentDistance(vec2 p, vec2 a, vec2 b) {
  vec2 ab = b - a;
  float t = clamp(dot(p - a, ab) / max(dot(ab, ab), 1e-6), 0.0, 1.0);
  return length(p - (a + ab * t));
}

float arrowDistance(vec2 p, vec2 start, vec2 end, float width) {
  vec2 axis = end - start;
  float len = length(axis);
  if (len < 1e-3) return 1e6;
  vec2 dir = axis / len;
  vec2 across = vec2(-dir.y, dir.x);
  float headLength = min(width * 4.5, len * 0.6);
  float headHalfWidth = max(headLength * 0.6, width);
  float shaft = segmentDistance(p, start, end - dir * headLength * 0.9) - width * 0.5;
  float back = len - dot(p - start, dir);  // distance back from the tip along the axis
  float side = abs(dot(p - start, across));
  float slant = (side - headHalfWidth * back / headLength) * headLength /
                sqrt(headLength * headLength + headHalfWidth * headHalfWidth);
  float head = max(slant, max(-back, back - headLength));
  return min(shaft, head);
}

void main() {
  vec2 outputSize = header[0].xy;
  vec2 p = vec2(gl_FragCoord.x, outputSize.y - gl_FragCoord.y);
  vec3 colour = sceneAt(p);
  float minSide = min(outputSize.x, outputSize.y);
  int count = int(header[0].z + 0.5);

  for (int i = 0; i < 16; ++i) {
    if (i >= count) break;
    vec4 geometry = annotations[i * 3];
    vec3 tint = annotations[i * 3 + 1].rgb;
    vec4 options = annotations[i * 3 + 2];
    int shape = int(options.x + 0.5);
    int fill = int(options.w + 0.5);
    float lineWidth = max(options.y * minSide, 1.0);

    if (shape == 2) {
      float d = arrowDistance(p, geometry.xy * outputSize, geometry.zw * outputSize, lineWidth);
      colour = mix(colour, tint, clamp(0.5 - d, 0.0, 1.0));
      continue;
    }
    vec4 rect = vec4(geometry.xy * outputSize, geometry.zw * outputSize);
    if (rect.z <= 0.0 || rect.w <= 0.0) continue;
    float cornerRadius = options.z * 0.5 * min(rect.z, rect.w);

    if (shape == 3) {
      float d = roundedBoxDistance(p, rect, cornerRadius);
      float cover = clamp(0.5 - d, 0.0, 1.0);
      if (cover > 0.0) {
        float block = header[1].y;
        vec2 cell = floor((p - rect.xy) / block);
        vec2 centre = min(rect.xy + (cell + 0.5) * block, rect.xy + rect.zw - 0.5);
        colour = mix(colour, sceneAt(centre), cover);
      }
      continue;
    }
    if (shape == 4) {
      vec4 atlasRect = placements[i * 2];
      vec4 frame = placements[i * 2 + 1];
      if (frame.z > 0.0) {
        vec2 offset = floor(p - frame.xy);
        if (all(greaterThanEqual(offset, vec2(0.0))) && all(lessThan(offset, frame.zw))) {
          vec4 texel = texelFetch(textAtlas, ivec2(atlasRect.xy + offset), 0);
          colour = texel.rgb + colour * (1.0 - texel.a);
        }
      }
      continue;
    }

    float d = shape == 1 ? ellipseDistance(p, rect) : roundedBoxDistance(p, rect, cornerRadius);
    float stroke = clamp(lineWidth * 0.5 - abs(d + lineWidth * 0.5) + 0.5, 0.0, 1.0);
    if (fill == 2) {
      colour *= 1.0 - 0.55 * clamp(d + 0.5, 0.0, 1.0);
      colour = mix(colour, tint, stroke);
    } else if (fill == 1) {
      colour = mix(colour, tint, clamp(0.5 - d, 0.0, 1.0));
    } else {
      colour = mix(colour, tint, stroke);
    }
  }
  fragColor = vec4(colour, 1.0);
}
