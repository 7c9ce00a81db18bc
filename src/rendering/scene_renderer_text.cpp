// The renderer's one link to the Pango/Cairo text drawing: everything else reaches captions and
// text annotations through TextRasterSources, so it can be drawn and tested without fonts.

#include "rendering/caption_texture_renderer.h"
#include "rendering/scene_renderer.h"
#include "rendering/text_annotation_renderer.h"

namespace vumo {

TextRasterSources TextRasterSources::standard() {
  auto captions = std::make_shared<CaptionTextureRenderer>();
  auto annotations = std::make_shared<TextAnnotationRenderer>();
  return {[captions](const CaptionState& caption, PixelSize size) { return captions->asset(caption, size); },
          [annotations](const AnnotationElement& annotation, PixelSize size) {
            return annotations->texture(annotation, size);
          }};
}

SceneRenderer::SceneRenderer(std::shared_ptr<RenderingContext> context)
    : SceneRenderer(std::move(context), TextRasterSources::standard()) {}

}  // namespace vumo
