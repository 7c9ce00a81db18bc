#include "rendering/text_fonts.h"

#include <fontconfig/fontconfig.h>
#include <glib-object.h>
#include <pango/pangocairo.h>
#include <pango/pangofc-fontmap.h>

#include <array>
#include <cstdint>
#include <cstring>

namespace vumo {

namespace {

// Every font file the program draws text with. Captions are bold, annotations regular; Noto Sans
// sets Latin, Greek and Cyrillic, and Noto Sans CJK SC takes the Chinese the first one lacks. The
// packages are fonts-noto-core and fonts-noto-cjk.
const std::vector<TextFonts::FontFile>& builtInFontFiles() {
  static const std::vector<TextFonts::FontFile> files{
      {TextFontRole::caption, "/usr/share/fonts/truetype/noto/NotoSans-Bold.ttf"},
      {TextFontRole::caption, "/usr/share/fonts/opentype/noto/NotoSansCJK-Bold.ttc"},
      {TextFontRole::annotation, "/usr/share/fonts/truetype/noto/NotoSans-Regular.ttf"},
      {TextFontRole::annotation, "/usr/share/fonts/opentype/noto/NotoSansCJK-Regular.ttc"},
  };
  return files;
}

struct RoleFont {
  TextFontRole role;
  const char* families;  // in fallback order
  PangoWeight weight;
};

constexpr std::array<RoleFont, 2> roleFonts{{
    {TextFontRole::caption, "Noto Sans, Noto Sans CJK SC", PANGO_WEIGHT_BOLD},
    {TextFontRole::annotation, "Noto Sans, Noto Sans CJK SC", PANGO_WEIGHT_NORMAL},
}};

// Keeps fontconfig's cache beside the program's other caches, never in a shared system place.
constexpr const char* fontConfigSettings = R"(<?xml version="1.0"?>
<!DOCTYPE fontconfig SYSTEM "urn:fontconfig:fonts.dtd">
<fontconfig><cachedir prefix="xdg">vumo/fontconfig</cachedir></fontconfig>
)";

const RoleFont& roleFont(TextFontRole role) {
  for (const auto& font : roleFonts) {
    if (font.role == role) return font;
  }
  return roleFonts.front();
}

}  // namespace

void GObjectUnref::operator()(void* object) const {
  if (object) g_object_unref(object);
}

void PangoFontDescriptionFree::operator()(PangoFontDescription* description) const {
  if (description) pango_font_description_free(description);
}

void PangoAttrListUnref::operator()(PangoAttrList* list) const {
  if (list) pango_attr_list_unref(list);
}

void CairoSurfaceDestroy::operator()(cairo_surface_t* surface) const {
  if (surface) cairo_surface_destroy(surface);
}

void CairoDestroy::operator()(cairo_t* context) const {
  if (context) cairo_destroy(context);
}

struct TextFonts::Handles {
  FcConfig* config = nullptr;
  GObjectPointer<PangoFontMap> fontMap;
  bool captionAvailable = false;
  bool annotationAvailable = false;

  ~Handles() {
    fontMap.reset();
    if (config) FcConfigDestroy(config);
  }
};

TextFonts& TextFonts::shared() {
  // Never destroyed: renderers may still draw while static objects are torn down at exit.
  static TextFonts* fonts = new TextFonts(builtInFontFiles());
  return *fonts;
}

TextFonts::TextFonts(const std::vector<FontFile>& files) : handles_(std::make_unique<Handles>()) {
  FcConfig* config = FcConfigCreate();
  if (!config) return;
  handles_->config = config;
  FcConfigParseAndLoadFromMemory(config, reinterpret_cast<const FcChar8*>(fontConfigSettings), FcFalse);

  bool captionComplete = true;
  bool annotationComplete = true;
  bool anyCaption = false;
  bool anyAnnotation = false;
  for (const auto& file : files) {
    const bool added = FcConfigAppFontAddFile(config, reinterpret_cast<const FcChar8*>(file.path.c_str())) == FcTrue;
    bool& complete = file.role == TextFontRole::caption ? captionComplete : annotationComplete;
    (file.role == TextFontRole::caption ? anyCaption : anyAnnotation) = true;
    complete = complete && added;
  }

  handles_->fontMap.reset(pango_cairo_font_map_new());
  if (!handles_->fontMap || !PANGO_IS_FC_FONT_MAP(handles_->fontMap.get())) {
    handles_->fontMap.reset();
    return;
  }
  pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(handles_->fontMap.get()), config);
  handles_->captionAvailable = anyCaption && captionComplete;
  handles_->annotationAvailable = anyAnnotation && annotationComplete;
}

TextFonts::~TextFonts() = default;

bool TextFonts::isAvailable(TextFontRole role) const {
  return role == TextFontRole::caption ? handles_->captionAvailable : handles_->annotationAvailable;
}

GObjectPointer<PangoLayout> TextFonts::makeLayout(TextFontRole role, double pixelSize) {
  if (!isAvailable(role) || !(pixelSize > 0)) return nullptr;
  GObjectPointer<PangoContext> context(pango_font_map_create_context(handles_->fontMap.get()));
  if (!context) return nullptr;

  // Unhinted outlines at fractional positions: a layout then scales in proportion to its size, so
  // shrinking a caption never adds a line break and an annotation looks the same at any output.
  std::unique_ptr<cairo_font_options_t, decltype(&cairo_font_options_destroy)> options(cairo_font_options_create(),
                                                                                       &cairo_font_options_destroy);
  cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
  cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_NONE);
  cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
  pango_cairo_context_set_font_options(context.get(), options.get());
  pango_context_set_round_glyph_positions(context.get(), FALSE);

  GObjectPointer<PangoLayout> layout(pango_layout_new(context.get()));
  if (!layout) return nullptr;
  const auto& font = roleFont(role);
  FontDescriptionPointer description(pango_font_description_new());
  pango_font_description_set_family(description.get(), font.families);
  pango_font_description_set_weight(description.get(), font.weight);
  pango_font_description_set_absolute_size(description.get(), pixelSize * PANGO_SCALE);
  pango_layout_set_font_description(layout.get(), description.get());
  return layout;
}

std::vector<std::string> TextFonts::familiesUsed(TextFontRole role, std::string_view text) {
  std::vector<std::string> families;
  std::lock_guard guard(lock_);
  auto layout = makeLayout(role, 48);
  if (!layout) return families;
  pango_layout_set_text(layout.get(), text.data(), static_cast<int>(text.size()));
  std::unique_ptr<PangoLayoutIter, decltype(&pango_layout_iter_free)> iterator(pango_layout_get_iter(layout.get()),
                                                                               &pango_layout_iter_free);
  do {
    PangoLayoutRun* run = pango_layout_iter_get_run_readonly(iterator.get());
    if (!run) continue;
    FontDescriptionPointer description(pango_font_describe(run->item->analysis.font));
    const char* family = description ? pango_font_description_get_family(description.get()) : nullptr;
    families.emplace_back(family ? family : "");
  } while (pango_layout_iter_next_run(iterator.get()));
  return families;
}

CairoSurfacePointer makeTextSurface(int width, int height) {
  if (width <= 0 || height <= 0 || width > maximumStillImageSide || height > maximumStillImageSide) return nullptr;
  CairoSurfacePointer surface(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height));
  if (cairo_surface_status(surface.get()) != CAIRO_STATUS_SUCCESS) return nullptr;
  return surface;
}

StillImage stillImageFromSurface(cairo_surface_t* surface) {
  cairo_surface_flush(surface);
  StillImage image;
  image.width = cairo_image_surface_get_width(surface);
  image.height = cairo_image_surface_get_height(surface);
  const int stride = cairo_image_surface_get_stride(surface);
  const unsigned char* data = cairo_image_surface_get_data(surface);
  image.pixels.resize(static_cast<std::size_t>(image.width) * image.height * 4);
  std::uint8_t* out = image.pixels.data();
  for (int y = 0; y < image.height; ++y) {
    const unsigned char* row = data + static_cast<std::ptrdiff_t>(y) * stride;
    for (int x = 0; x < image.width; ++x) {
      std::uint32_t pixel;
      std::memcpy(&pixel, row + x * 4, 4);
      *out++ = static_cast<std::uint8_t>(pixel >> 16);
      *out++ = static_cast<std::uint8_t>(pixel >> 8);
      *out++ = static_cast<std::uint8_t>(pixel);
      *out++ = static_cast<std::uint8_t>(pixel >> 24);
    }
  }
  return image;
}

}  // namespace vumo
