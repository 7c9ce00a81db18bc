#include "rendering/text_annotation_renderer.h"

#include <fmt/format.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <utility>

#include "rendering/text_fonts.h"
#include "rendering/text_raster_cache.h"

namespace vumo {

namespace {

constexpr double referenceOutputHeight = 1080;
// Centred on the glyph outline under the fill, so half of it shows: 0.05 of the size outside each
// glyph, between 2 and 3 pixels for the default 48 at 1080p.
constexpr double outlineStrokeWidth = 0.1;
// Anti-aliasing may touch the pixel beyond the exact ink box.
constexpr double inkMargin = 1;
constexpr double largestFontSize = 4096;
constexpr double largestOutputSide = 1 << 16;
constexpr std::size_t cacheEntryLimit = 64;
constexpr std::size_t cacheByteLimit = std::size_t{128} << 20;

double channel(double value) { return std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0; }

struct Placement {
  RectValue bounds;  // output pixels
  double fontSize = 0;
};

std::optional<Placement> placement(const AnnotationElement& annotation, const TextAnnotationStyle& style,
                                   PixelSize outputSize) {
  if (outputSize.width <= 0 || outputSize.height <= 0 || outputSize.width > largestOutputSide ||
      outputSize.height > largestOutputSide || !annotation.bounds) {
    return std::nullopt;
  }
  const auto& normalised = *annotation.bounds;
  const double width = static_cast<double>(outputSize.width);
  const double height = static_cast<double>(outputSize.height);
  Placement result{{normalised.x * width, normalised.y * height, normalised.width * width, normalised.height * height},
                   textAnnotationFontSize(style.fontSize, outputSize)};
  const auto& bounds = result.bounds;
  for (double value : {bounds.x, bounds.y, bounds.width, bounds.height}) {
    if (!std::isfinite(value) || std::abs(value) > 4 * largestOutputSide) return std::nullopt;
  }
  if (bounds.width < 1 || bounds.height < 1 || !(result.fontSize > 0)) return std::nullopt;
  return result;
}

std::string cacheKey(const AnnotationElement& annotation, const TextAnnotationStyle& style, const Placement& place,
                     PixelSize outputSize) {
  return fmt::format("{}:{}|{}|{},{},{}|{}|{}|{},{},{},{}|{}x{}", style.content.size(), style.content, place.fontSize,
                     annotation.color.red, annotation.color.green, annotation.color.blue, style.hasOutline,
                     static_cast<int>(style.outlineColor), place.bounds.x, place.bounds.y, place.bounds.width,
                     place.bounds.height, outputSize.width, outputSize.height);
}

// Lays out and draws one annotation, cropped to its glyphs. Called with the font lock held.
SharedTextRaster drawAnnotation(TextFonts& fonts, const AnnotationElement& annotation, const TextAnnotationStyle& style,
                                const Placement& place, PixelSize outputSize) {
  auto layout = fonts.makeLayout(TextFontRole::annotation, place.fontSize);
  if (!layout) return nullptr;
  const RectValue& bounds = place.bounds;
  pango_layout_set_text(layout.get(), style.content.data(), static_cast<int>(style.content.size()));
  pango_layout_set_width(layout.get(),
                         static_cast<int>(std::lround(std::min(bounds.width, largestOutputSide) * PANGO_SCALE)));
  pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
  pango_layout_set_alignment(layout.get(), PANGO_ALIGN_LEFT);

  PangoRectangle ink;
  pango_layout_get_extents(layout.get(), &ink, nullptr);
  if (ink.width <= 0 || ink.height <= 0) return nullptr;
  const double strokeWidth = style.hasOutline ? outlineStrokeWidth * place.fontSize : 0;
  const double grow = strokeWidth / 2 + inkMargin;

  // The glyphs' extent on the output, kept inside the bounds and the output, in whole pixels.
  const double inkLeft = bounds.x + static_cast<double>(ink.x) / PANGO_SCALE - grow;
  const double inkTop = bounds.y + static_cast<double>(ink.y) / PANGO_SCALE - grow;
  const double inkRight = bounds.x + static_cast<double>(ink.x + ink.width) / PANGO_SCALE + grow;
  const double inkBottom = bounds.y + static_cast<double>(ink.y + ink.height) / PANGO_SCALE + grow;
  const double left = std::max({std::floor(inkLeft), std::ceil(bounds.x), 0.0});
  const double top = std::max({std::floor(inkTop), std::ceil(bounds.y), 0.0});
  const double right =
      std::min({std::ceil(inkRight), std::floor(bounds.x + bounds.width), static_cast<double>(outputSize.width)});
  const double bottom =
      std::min({std::ceil(inkBottom), std::floor(bounds.y + bounds.height), static_cast<double>(outputSize.height)});
  if (right <= left || bottom <= top) return nullptr;

  auto surface = makeTextSurface(static_cast<int>(right - left), static_cast<int>(bottom - top));
  if (!surface) return nullptr;
  CairoPointer cairo(cairo_create(surface.get()));
  if (cairo_status(cairo.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  cairo_translate(cairo.get(), bounds.x - left, bounds.y - top);

  if (style.hasOutline) {
    const double outline = style.outlineColor == TextAnnotationOutlineColor::white ? 1.0 : 0.0;
    cairo_move_to(cairo.get(), 0, 0);
    pango_cairo_layout_path(cairo.get(), layout.get());
    cairo_set_line_width(cairo.get(), strokeWidth);
    cairo_set_line_join(cairo.get(), CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_cap(cairo.get(), CAIRO_LINE_CAP_ROUND);
    cairo_set_source_rgb(cairo.get(), outline, outline, outline);
    cairo_stroke(cairo.get());
  }
  cairo_move_to(cairo.get(), 0, 0);
  cairo_set_source_rgb(cairo.get(), channel(annotation.color.red), channel(annotation.color.green),
                       channel(annotation.color.blue));
  pango_cairo_show_layout(cairo.get(), layout.get());
  if (cairo_status(cairo.get()) != CAIRO_STATUS_SUCCESS) return nullptr;

  auto raster = std::make_shared<TextRaster>();
  raster->image = stillImageFromSurface(surface.get());
  raster->frame = {left, top, right - left, bottom - top};
  return raster;
}

}  // namespace

double textAnnotationFontSize(double fontSize, PixelSize outputSize) {
  if (!std::isfinite(fontSize) || fontSize <= 0 || outputSize.height <= 0) return 0;
  return std::min(fontSize * static_cast<double>(outputSize.height) / referenceOutputHeight, largestFontSize);
}

struct TextAnnotationRenderer::State {
  TextRasterCache cache{cacheEntryLimit, cacheByteLimit};
};

TextAnnotationRenderer::TextAnnotationRenderer() : state_(std::make_unique<State>()) {}
TextAnnotationRenderer::~TextAnnotationRenderer() = default;

SharedTextRaster TextAnnotationRenderer::texture(const AnnotationElement& annotation, PixelSize outputSize) {
  if (annotation.kind != AnnotationKind::text) return nullptr;
  const TextAnnotationStyle style = annotation.textStyle.value_or(TextAnnotationStyle::defaultValue());
  if (style.content.empty()) return nullptr;
  const auto place = placement(annotation, style, outputSize);
  if (!place) return nullptr;
  const std::string key = cacheKey(annotation, style, *place, outputSize);
  if (auto cached = state_->cache.find(key)) return cached;

  auto& fonts = TextFonts::shared();
  SharedTextRaster raster;
  {
    std::lock_guard guard(fonts.lock());
    raster = drawAnnotation(fonts, annotation, style, *place, outputSize);
  }
  if (!raster) return nullptr;
  return state_->cache.insert(key, std::move(raster));
}

}  // namespace vumo
