// Draws the arrow cursor of resources/cursors/: the picture the renderer shows where a recording
// has no cursor shape of its own. A plain black arrow with a white outline, drawn at twice its
// logical size; the geometry file gives that size and the hot spot (the tip) in points. Run it
// again after changing the shape:
//
//   tools/cursor-image-generator/generate.sh
//
// Usage: generate_cursor_images <output folder>   (writes arrow.png and arrow.json)

#include <cairo.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

constexpr int pixelsPerPoint = 2;
constexpr double logicalWidth = 16;
constexpr double logicalHeight = 24;
constexpr double hotSpotX = 2;
constexpr double hotSpotY = 2;
constexpr double outlineWidth = 1.5;  // points, half of it outside the black body

// The arrow's outline in points, starting at the tip.
constexpr double outline[][2] = {
    {2, 2}, {2, 19}, {6.2, 15}, {9, 21.5}, {11.6, 20.4}, {8.9, 14.2}, {14.5, 14.2},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);

  const int width = static_cast<int>(logicalWidth) * pixelsPerPoint;
  const int height = static_cast<int>(logicalHeight) * pixelsPerPoint;
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, pixelsPerPoint, pixelsPerPoint);
  cairo_move_to(cr, outline[0][0], outline[0][1]);
  for (const auto& point : outline) cairo_line_to(cr, point[0], point[1]);
  cairo_close_path(cr);
  cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
  cairo_set_line_width(cr, outlineWidth * 2);
  cairo_set_source_rgb(cr, 1, 1, 1);
  cairo_stroke_preserve(cr);
  cairo_set_source_rgb(cr, 0, 0, 0);
  cairo_fill(cr);
  cairo_destroy(cr);

  const std::string png = (folder / "arrow.png").string();
  const cairo_status_t status = cairo_surface_write_to_png(surface, png.c_str());
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) {
    std::fprintf(stderr, "could not write %s: %s\n", png.c_str(), cairo_status_to_string(status));
    return 1;
  }

  std::ofstream json(folder / "arrow.json");
  json << "{\n  \"hotSpot\": {\n    \"x\": " << hotSpotX << ",\n    \"y\": " << hotSpotY
       << "\n  },\n  \"logicalSize\": {\n    \"height\": " << logicalHeight << ",\n    \"width\": " << logicalWidth
       << "\n  }\n}\n";
  return json ? 0 : 1;
}
