#pragma once
// The fonts text is drawn with, and the one lock around them. The program never depends on what
// fonts a machine happens to have: a private fontconfig set holds exactly the files listed in
// text_fonts.cpp, and every Pango context is made on one font map built from it.
//
// Pango font maps and the fonts they hand out are not thread-safe, so everything that lays out or
// draws text holds `TextFonts::lock()` for the duration.

#include <cairo.h>
#include <pango/pango.h>

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "media/still_image.h"

namespace vumo {

enum class TextFontRole {
  caption,     // bold, for the caption box
  annotation,  // regular, for text annotations
};

// Owners of the GLib and Cairo handles used while drawing text; nothing else frees them.
struct GObjectUnref {
  void operator()(void* object) const;
};
template <typename T>
using GObjectPointer = std::unique_ptr<T, GObjectUnref>;

struct PangoFontDescriptionFree {
  void operator()(PangoFontDescription* description) const;
};
using FontDescriptionPointer = std::unique_ptr<PangoFontDescription, PangoFontDescriptionFree>;

struct PangoAttrListUnref {
  void operator()(PangoAttrList* list) const;
};
using AttributeListPointer = std::unique_ptr<PangoAttrList, PangoAttrListUnref>;

struct CairoSurfaceDestroy {
  void operator()(cairo_surface_t* surface) const;
};
using CairoSurfacePointer = std::unique_ptr<cairo_surface_t, CairoSurfaceDestroy>;

struct CairoDestroy {
  void operator()(cairo_t* context) const;
};
using CairoPointer = std::unique_ptr<cairo_t, CairoDestroy>;

class TextFonts {
 public:
  // The process's one set, made on first use from the built-in file table.
  static TextFonts& shared();

  // A set of exactly `files` (path and the role it serves). A file that cannot be added leaves its
  // role unavailable; the others still work.
  struct FontFile {
    TextFontRole role;
    std::string path;
  };
  explicit TextFonts(const std::vector<FontFile>& files);
  ~TextFonts();
  TextFonts(const TextFonts&) = delete;
  TextFonts& operator=(const TextFonts&) = delete;

  std::mutex& lock() { return lock_; }

  // Whether every file of `role` was loaded: without them nothing of that role is drawn.
  bool isAvailable(TextFontRole role) const;

  // A layout on a fresh context of this set, in the role's font at `pixelSize`, or null when the
  // role is unavailable. Call with `lock()` held; the layout must be released under it too.
  GObjectPointer<PangoLayout> makeLayout(TextFontRole role, double pixelSize);

  // The families of the fonts that draw `text` in `role`, in the order of the runs. Lets a caller
  // check that a script reached a font that has its glyphs.
  std::vector<std::string> familiesUsed(TextFontRole role, std::string_view text);

 private:
  std::mutex lock_;
  struct Handles;
  std::unique_ptr<Handles> handles_;
};

// A cleared ARGB32 surface, or null when Cairo cannot make one of that size.
CairoSurfacePointer makeTextSurface(int width, int height);

// The pixels of a finished surface in the order the renderer uploads: Cairo's ARGB32 is
// premultiplied BGRA in native endianness, StillImage premultiplied RGBA bytes.
StillImage stillImageFromSurface(cairo_surface_t* surface);

}  // namespace vumo
