// Draws Vumo's application icon for the hicolor theme: the scalable SVG and the PNGs of the fixed
// sizes that menus and docks look up first, all from one description, so they cannot drift apart.
// A dark rounded tile with a white screen and a red record dot over its corner. Run it again after
// changing the shape:
//
//   tools/icon-generator/generate.sh
//
// Usage: generate_icons <hicolor folder>   (writes scalable/apps/com.tarvex.vumo.svg and
//                                           <n>x<n>/apps/com.tarvex.vumo.png for n = 48, 128, 256)

#include <cairo.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

// In units of a 256-unit square.
constexpr double canvas = 256;
struct RoundedBox {
  double x, y, width, height, radius;
};
constexpr RoundedBox tile{16, 16, 224, 224, 48};
constexpr RoundedBox screen{52, 66, 152, 108, 14};
constexpr double screenLine = 14;
constexpr double dotX = 178, dotY = 178, dotRadius = 42, dotRing = 12;
constexpr const char* tileColour = "#1d2840";
constexpr const char* screenColour = "#ffffff";
constexpr const char* dotColour = "#e5484d";
constexpr const char* name = "com.tarvex.vumo";

void setColour(cairo_t* cr, const char* hex) {
  unsigned red = 0, green = 0, blue = 0;
  std::sscanf(hex, "#%02x%02x%02x", &red, &green, &blue);
  cairo_set_source_rgb(cr, red / 255.0, green / 255.0, blue / 255.0);
}

void roundedBox(cairo_t* cr, const RoundedBox& box) {
  const double r = box.radius, right = box.x + box.width, bottom = box.y + box.height;
  cairo_new_sub_path(cr);
  cairo_arc(cr, right - r, box.y + r, r, -M_PI / 2, 0);
  cairo_arc(cr, right - r, bottom - r, r, 0, M_PI / 2);
  cairo_arc(cr, box.x + r, bottom - r, r, M_PI / 2, M_PI);
  cairo_arc(cr, box.x + r, box.y + r, r, M_PI, 3 * M_PI / 2);
  cairo_close_path(cr);
}

bool writePng(const std::filesystem::path& file, int size) {
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, size, size);
  cairo_t* cr = cairo_create(surface);
  cairo_scale(cr, size / canvas, size / canvas);
  roundedBox(cr, tile);
  setColour(cr, tileColour);
  cairo_fill(cr);
  roundedBox(cr, screen);
  setColour(cr, screenColour);
  cairo_set_line_width(cr, screenLine);
  cairo_stroke(cr);
  // The ring in the tile's colour parts the dot from the screen's frame it overlaps.
  cairo_arc(cr, dotX, dotY, dotRadius + dotRing, 0, 2 * M_PI);
  setColour(cr, tileColour);
  cairo_fill(cr);
  cairo_arc(cr, dotX, dotY, dotRadius, 0, 2 * M_PI);
  setColour(cr, dotColour);
  cairo_fill(cr);
  cairo_destroy(cr);
  std::filesystem::create_directories(file.parent_path());
  const cairo_status_t status = cairo_surface_write_to_png(surface, file.c_str());
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS)
    std::fprintf(stderr, "could not write %s: %s\n", file.c_str(), cairo_status_to_string(status));
  return status == CAIRO_STATUS_SUCCESS;
}

std::string svgBox(const RoundedBox& box, const std::string& paint) {
  char text[256];
  std::snprintf(text, sizeof text, R"(<rect x="%g" y="%g" width="%g" height="%g" rx="%g" %s/>)", box.x, box.y,
                box.width, box.height, box.radius, paint.c_str());
  return text;
}

bool writeSvg(const std::filesystem::path& file) {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file);
  char circles[256];
  std::snprintf(circles, sizeof circles, R"(  <circle cx="%g" cy="%g" r="%g" fill="%s"/>
  <circle cx="%g" cy="%g" r="%g" fill="%s"/>
)",
                dotX, dotY, dotRadius + dotRing, tileColour, dotX, dotY, dotRadius, dotColour);
  out << R"(<svg xmlns="http://www.w3.org/2000/svg" width="256" height="256" viewBox="0 0 256 256">)"
      << "\n  " << svgBox(tile, std::string("fill=\"") + tileColour + "\"") << "\n  "
      << svgBox(screen, std::string("fill=\"none\" stroke=\"") + screenColour + "\" stroke-width=\"" +
                            std::to_string(int(screenLine)) + "\"")
      << "\n"
      << circles << "</svg>\n";
  return bool(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <hicolor folder>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path hicolor = argv[1];
  bool ok = writeSvg(hicolor / "scalable/apps" / (std::string(name) + ".svg"));
  for (int size : {48, 128, 256}) {
    const std::string folder = std::to_string(size) + "x" + std::to_string(size);
    ok = writePng(hicolor / folder / "apps" / (std::string(name) + ".png"), size) && ok;
  }
  return ok ? 0 : 1;
}
