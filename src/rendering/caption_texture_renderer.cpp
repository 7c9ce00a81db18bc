#include "rendering/caption_texture_renderer.h"

#include <fmt/format.h>
#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

#include "rendering/text_fonts.h"
#include "rendering/text_raster_cache.h"

namespace vumo {

namespace {

constexpr double minimumFontScale = 0.6;
constexpr double maximumFontScale = 1.2;
constexpr double baseFontSizeShare = 0.046;  // of the output's shorter side
constexpr double minimumBaseFontSize = 12;
constexpr double lineWidthShare = 0.84;  // of the output's width
constexpr double minimumLineWidth = 2;

// A cue that does not fit its line limit shrinks down to this share of its size, no further: below
// it the text is clipped instead, since smaller type would no longer be read at a glance.
constexpr double smallestShrink = 0.6;
constexpr int shrinkBisectionSteps = 12;  // 0.4 of the size in 4096 steps: well under a pixel
constexpr std::int64_t largestLineLimit = 16;

// The box, in shares of the font size, and its opacity.
constexpr double horizontalPadding = 0.5;
constexpr double verticalPadding = 0.25;
constexpr double cornerRadius = 0.3;
constexpr double boxOpacity = 0.7;
// The stroke is centred on the outline and the fill covers its inner half, so a share of 0.16
// shows 0.08 of the size outside each glyph: about 4 pixels at 1080p.
constexpr double outlineStrokeWidth = 0.16;

struct Colour {
  double red = 0;
  double green = 0;
  double blue = 0;
};

constexpr Colour white{1, 1, 1};
constexpr Colour black{0, 0, 0};
constexpr Colour warmYellow{1.0, 0.82, 0.24};  // on white text over black or a black outline
constexpr Colour deepOrange{0.86, 0.36, 0.0};  // on black text in a white outline

struct AppearanceColours {
  Colour fill;
  std::optional<Colour> outline;
  Colour highlight;
  bool hasBox = false;
};

AppearanceColours appearanceColours(CaptionAppearance appearance) {
  switch (appearance) {
    case CaptionAppearance::whiteOnBlack: return {white, std::nullopt, warmYellow, true};
    case CaptionAppearance::whiteWithBlackOutline: return {white, black, warmYellow, false};
    case CaptionAppearance::blackWithWhiteOutline: return {black, white, deepOrange, false};
  }
  return {white, std::nullopt, warmYellow, true};
}

constexpr std::size_t cacheEntryLimit = 64;
constexpr std::size_t cacheByteLimit = std::size_t{128} << 20;

bool isUsableOutput(PixelSize outputSize) {
  constexpr std::int64_t largestSide = 1 << 16;
  return outputSize.width > 0 && outputSize.height > 0 && outputSize.width <= largestSide &&
         outputSize.height <= largestSide;
}

std::int64_t clampedLineLimit(std::int64_t maximumLines) {
  return std::clamp<std::int64_t>(maximumLines, 1, largestLineLimit);
}

double clampedBottomPosition(double bottomPosition) {
  if (!std::isfinite(bottomPosition)) return CaptionStyle::defaults().bottomPosition;
  return std::clamp(bottomPosition, 0.0, 1.0);
}

// A caption layout in `fontSize`, wrapped at `maximumWidth` and centred. Called with the font lock
// held.
GObjectPointer<PangoLayout> makeCaptionLayout(TextFonts& fonts, std::string_view text, double fontSize,
                                              double maximumWidth) {
  auto layout = fonts.makeLayout(TextFontRole::caption, fontSize);
  if (!layout) return nullptr;
  pango_layout_set_text(layout.get(), text.data(), static_cast<int>(text.size()));
  pango_layout_set_width(layout.get(), static_cast<int>(std::lround(maximumWidth * PANGO_SCALE)));
  pango_layout_set_wrap(layout.get(), PANGO_WRAP_WORD_CHAR);
  pango_layout_set_alignment(layout.get(), PANGO_ALIGN_CENTER);
  return layout;
}

std::int64_t lineCount(TextFonts& fonts, std::string_view text, double fontSize, double maximumWidth) {
  auto layout = makeCaptionLayout(fonts, text, fontSize, maximumWidth);
  return layout ? pango_layout_get_line_count(layout.get()) : 0;
}

// Called with the font lock held.
std::optional<CaptionLayout> layoutCaption(TextFonts& fonts, std::string_view text, std::int64_t maximumLines,
                                           double fontScale, PixelSize outputSize) {
  if (!isUsableOutput(outputSize) || !fonts.isAvailable(TextFontRole::caption)) return std::nullopt;
  const std::int64_t lineLimit = clampedLineLimit(maximumLines);
  CaptionLayout result;
  result.wantedFontSize = captionBaseFontSize(outputSize) * clampedCaptionFontScale(fontScale);
  result.maximumWidth = captionMaximumWidth(outputSize);
  result.fontSize = result.wantedFontSize;
  result.lineCount = lineCount(fonts, text, result.fontSize, result.maximumWidth);
  if (result.lineCount <= lineLimit) return result;

  double fitting = result.wantedFontSize * smallestShrink;
  const std::int64_t smallestLines = lineCount(fonts, text, fitting, result.maximumWidth);
  if (smallestLines > lineLimit) {
    result.fontSize = fitting;
    result.lineCount = smallestLines;
    result.isClipped = true;
    return result;
  }
  std::int64_t fittingLines = smallestLines;
  double tooLarge = result.wantedFontSize;
  for (int step = 0; step < shrinkBisectionSteps; ++step) {
    const double middle = (fitting + tooLarge) / 2;
    const std::int64_t lines = lineCount(fonts, text, middle, result.maximumWidth);
    if (lines <= lineLimit) {
      fitting = middle;
      fittingLines = lines;
    } else {
      tooLarge = middle;
    }
  }
  result.fontSize = fitting;
  result.lineCount = fittingLines;
  return result;
}

// The byte ranges of the highlights in `text`: occurrence k of a run is searched from the end of
// occurrence k - 1, so occurrences never overlap. A highlight that is not there marks nothing.
std::vector<std::pair<std::size_t, std::size_t>> highlightRanges(std::string_view text,
                                                                 const std::vector<CaptionHighlight>& highlights) {
  std::vector<std::pair<std::size_t, std::size_t>> ranges;
  for (const auto& highlight : highlights) {
    if (highlight.text.empty() || highlight.occurrence < 1) continue;
    std::size_t from = 0;
    std::size_t found = std::string_view::npos;
    for (std::int64_t occurrence = 1; occurrence <= highlight.occurrence; ++occurrence) {
      found = text.find(highlight.text, from);
      if (found == std::string_view::npos) break;
      from = found + highlight.text.size();
    }
    if (found != std::string_view::npos) ranges.emplace_back(found, found + highlight.text.size());
  }
  return ranges;
}

void setColour(cairo_t* cairo, Colour colour, double alpha = 1) {
  cairo_set_source_rgba(cairo, colour.red, colour.green, colour.blue, alpha);
}

void roundedRectangle(cairo_t* cairo, double width, double height, double radius) {
  radius = std::min({radius, width / 2, height / 2});
  cairo_new_sub_path(cairo);
  cairo_arc(cairo, width - radius, radius, radius, -M_PI / 2, 0);
  cairo_arc(cairo, width - radius, height - radius, radius, 0, M_PI / 2);
  cairo_arc(cairo, radius, height - radius, radius, M_PI / 2, M_PI);
  cairo_arc(cairo, radius, radius, radius, M_PI, 3 * M_PI / 2);
  cairo_close_path(cairo);
}

std::string cacheKey(const CaptionState& caption, PixelSize outputSize) {
  std::string key =
      fmt::format("{}:{}|{}|{}|{}|{}|{}x{}", caption.text.size(), caption.text, static_cast<int>(caption.appearance),
                  clampedLineLimit(caption.maximumLines), clampedCaptionFontScale(caption.fontScale),
                  clampedBottomPosition(caption.bottomPosition), outputSize.width, outputSize.height);
  for (const auto& highlight : caption.highlights) {
    key += fmt::format("|{}:{}#{}", highlight.text.size(), highlight.text, highlight.occurrence);
  }
  return key;
}

// Lays out and draws one caption. Called with the font lock held.
SharedTextRaster drawCaption(TextFonts& fonts, const CaptionState& caption, PixelSize outputSize) {
  const auto layout = layoutCaption(fonts, caption.text, caption.maximumLines, caption.fontScale, outputSize);
  if (!layout) return nullptr;
  auto text = makeCaptionLayout(fonts, caption.text, layout->fontSize, layout->maximumWidth);
  if (!text) return nullptr;
  if (layout->isClipped) {
    pango_layout_set_height(text.get(), -static_cast<int>(clampedLineLimit(caption.maximumLines)));
    pango_layout_set_ellipsize(text.get(), PANGO_ELLIPSIZE_END);
  }

  const AppearanceColours colours = appearanceColours(caption.appearance);
  // Colour attributes only: they never change the shaping, so highlighted text breaks exactly as
  // plain text does.
  AttributeListPointer attributes(pango_attr_list_new());
  const auto toChannel = [](double value) { return static_cast<guint16>(std::lround(value * 65535)); };
  for (const auto& [start, end] : highlightRanges(caption.text, caption.highlights)) {
    PangoAttribute* colour = pango_attr_foreground_new(
        toChannel(colours.highlight.red), toChannel(colours.highlight.green), toChannel(colours.highlight.blue));
    colour->start_index = static_cast<guint>(start);
    colour->end_index = static_cast<guint>(end);
    pango_attr_list_insert(attributes.get(), colour);
  }
  pango_layout_set_attributes(text.get(), attributes.get());

  PangoRectangle ink;
  PangoRectangle logical;
  pango_layout_get_extents(text.get(), &ink, &logical);
  if (ink.width <= 0 || ink.height <= 0) return nullptr;
  const double textWidth = static_cast<double>(logical.width) / PANGO_SCALE;
  const double textHeight = static_cast<double>(logical.height) / PANGO_SCALE;
  const double fontSize = layout->fontSize;
  const int boxWidth = static_cast<int>(std::ceil(textWidth + 2 * horizontalPadding * fontSize));
  const int boxHeight = static_cast<int>(std::ceil(textHeight + 2 * verticalPadding * fontSize));

  auto surface = makeTextSurface(boxWidth, boxHeight);
  if (!surface) return nullptr;
  CairoPointer cairo(cairo_create(surface.get()));
  if (cairo_status(cairo.get()) != CAIRO_STATUS_SUCCESS) return nullptr;

  if (colours.hasBox) {
    roundedRectangle(cairo.get(), boxWidth, boxHeight, cornerRadius * fontSize);
    setColour(cairo.get(), black, boxOpacity);
    cairo_fill(cairo.get());
  }
  const double textX = (boxWidth - textWidth) / 2 - static_cast<double>(logical.x) / PANGO_SCALE;
  const double textY = (boxHeight - textHeight) / 2 - static_cast<double>(logical.y) / PANGO_SCALE;
  if (colours.outline) {
    cairo_move_to(cairo.get(), textX, textY);
    pango_cairo_layout_path(cairo.get(), text.get());
    cairo_set_line_width(cairo.get(), outlineStrokeWidth * fontSize);
    cairo_set_line_join(cairo.get(), CAIRO_LINE_JOIN_ROUND);
    cairo_set_line_cap(cairo.get(), CAIRO_LINE_CAP_ROUND);
    setColour(cairo.get(), *colours.outline);
    cairo_stroke(cairo.get());
  }
  cairo_move_to(cairo.get(), textX, textY);
  setColour(cairo.get(), colours.fill);
  pango_cairo_show_layout(cairo.get(), text.get());
  if (cairo_status(cairo.get()) != CAIRO_STATUS_SUCCESS) return nullptr;

  auto raster = std::make_shared<TextRaster>();
  raster->image = stillImageFromSurface(surface.get());
  const double bottom = (1 - clampedBottomPosition(caption.bottomPosition)) * static_cast<double>(outputSize.height);
  raster->frame = {std::round((static_cast<double>(outputSize.width) - boxWidth) / 2), std::round(bottom - boxHeight),
                   static_cast<double>(boxWidth), static_cast<double>(boxHeight)};
  return raster;
}

}  // namespace

double clampedCaptionFontScale(double fontScale) {
  if (!std::isfinite(fontScale)) return CaptionStyle::defaults().fontScale;
  return std::clamp(fontScale, minimumFontScale, maximumFontScale);
}

double captionBaseFontSize(PixelSize outputSize) {
  const double shorterSide = static_cast<double>(std::min(outputSize.width, outputSize.height));
  return std::max(shorterSide * baseFontSizeShare, minimumBaseFontSize);
}

double captionMaximumWidth(PixelSize outputSize) {
  return std::max(static_cast<double>(outputSize.width) * lineWidthShare, minimumLineWidth);
}

std::optional<TextMeasurement> captionMeasurement(std::string_view text, double fontSize, double maximumWidth) {
  auto& fonts = TextFonts::shared();
  if (!std::isfinite(maximumWidth) || maximumWidth < 1 || maximumWidth > 1 << 20) return std::nullopt;
  std::lock_guard guard(fonts.lock());
  auto layout = makeCaptionLayout(fonts, text, fontSize, maximumWidth);
  if (!layout) return std::nullopt;
  PangoRectangle logical;
  pango_layout_get_extents(layout.get(), nullptr, &logical);
  return TextMeasurement{
      pango_layout_get_line_count(layout.get()),
      {static_cast<double>(logical.width) / PANGO_SCALE, static_cast<double>(logical.height) / PANGO_SCALE}};
}

std::optional<CaptionLayout> captionLayout(std::string_view text, std::int64_t maximumLines, double fontScale,
                                           PixelSize outputSize) {
  auto& fonts = TextFonts::shared();
  std::lock_guard guard(fonts.lock());
  return layoutCaption(fonts, text, maximumLines, fontScale, outputSize);
}

std::vector<std::string> captionFontFamilies(std::string_view text) {
  return TextFonts::shared().familiesUsed(TextFontRole::caption, text);
}

struct CaptionTextureRenderer::State {
  TextRasterCache cache{cacheEntryLimit, cacheByteLimit};
};

CaptionTextureRenderer::CaptionTextureRenderer() : state_(std::make_unique<State>()) {}
CaptionTextureRenderer::~CaptionTextureRenderer() = default;

SharedTextRaster CaptionTextureRenderer::asset(const CaptionState& caption, PixelSize outputSize) {
  if (caption.text.empty() || !isUsableOutput(outputSize)) return nullptr;
  const std::string key = cacheKey(caption, outputSize);
  if (auto cached = state_->cache.find(key)) return cached;

  auto& fonts = TextFonts::shared();
  SharedTextRaster raster;
  {
    std::lock_guard guard(fonts.lock());
    raster = drawCaption(fonts, caption, outputSize);
  }
  if (!raster) return nullptr;
  return state_->cache.insert(key, std::move(raster));
}

}  // namespace vumo
