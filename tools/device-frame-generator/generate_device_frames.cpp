// Draws the device frame bitmaps of resources/device-frames/ and writes their catalogue.
//
// Every frame is a flat bezel with a fully transparent, rounded screen hole; the recording is
// drawn underneath by the renderer. Geometry lives only here, so the catalogue and the images
// cannot disagree. Run it again after changing a device:
//
//   tools/device-frame-generator/generate.sh
//
// Usage: generate_device_frames <output folder>   (writes catalog.json and the PNG files)

#include <cairo.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {

struct Colour {
  double r, g, b;
};

Colour rgb(int r, int g, int b) { return {r / 255.0, g / 255.0, b / 255.0}; }

enum class Style { slimPhone, classicPhone, laptop, display };

struct Variant {
  std::string id;
  std::string name;
  Colour body;
  Colour edge;
  bool isDefault;
};

struct Device {
  std::string id;
  std::string name;
  int priority;
  std::string family;
  Style style;
  int width, height;                          // bitmap
  double screenX, screenY, screenW, screenH;  // transparent hole
  double screenRadius;
  std::vector<std::string> legacyIDs;
  std::vector<Variant> variants;
};

const double pi = 3.14159265358979323846;

void roundedRect(cairo_t* cr, double x, double y, double w, double h, double r) {
  r = std::min(r, std::min(w, h) / 2);
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - r, y + r, r, -pi / 2, 0);
  cairo_arc(cr, x + w - r, y + h - r, r, 0, pi / 2);
  cairo_arc(cr, x + r, y + h - r, r, pi / 2, pi);
  cairo_arc(cr, x + r, y + r, r, pi, 3 * pi / 2);
  cairo_close_path(cr);
}

void fill(cairo_t* cr, Colour c, double alpha = 1) {
  cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
  cairo_fill(cr);
}

void stroke(cairo_t* cr, Colour c, double width) {
  cairo_set_source_rgb(cr, c.r, c.g, c.b);
  cairo_set_line_width(cr, width);
  cairo_stroke(cr);
}

void cutScreen(cairo_t* cr, const Device& d) {
  cairo_save(cr);
  cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
  roundedRect(cr, d.screenX, d.screenY, d.screenW, d.screenH, d.screenRadius);
  cairo_fill(cr);
  cairo_restore(cr);
}

void drawSlimPhone(cairo_t* cr, const Device& d, const Variant& v) {
  const double inset = 6;  // room for the side buttons
  // Buttons first, so that the body covers their inner ends.
  roundedRect(cr, 0, 180, 12, 70, 4);
  roundedRect(cr, 0, 270, 12, 70, 4);
  roundedRect(cr, d.width - 12, 220, 12, 110, 4);
  fill(cr, v.edge);
  roundedRect(cr, inset, 0, d.width - 2 * inset, d.height, d.screenRadius + 24);
  fill(cr, v.body);
  roundedRect(cr, inset + 2, 2, d.width - 2 * inset - 4, d.height - 4, d.screenRadius + 22);
  stroke(cr, v.edge, 4);
  cutScreen(cr, d);
  // The camera island sits on top of the picture, as on the real thing.
  roundedRect(cr, d.width / 2.0 - 60, d.screenY + 18, 120, 34, 17);
  fill(cr, rgb(8, 8, 10));
}

void drawClassicPhone(cairo_t* cr, const Device& d, const Variant& v) {
  roundedRect(cr, 0, 0, d.width, d.height, 72);
  fill(cr, v.body);
  roundedRect(cr, 2, 2, d.width - 4, d.height - 4, 70);
  stroke(cr, v.edge, 4);
  // Earpiece and camera in the forehead, home button in the chin.
  roundedRect(cr, d.width / 2.0 - 50, 52, 100, 12, 6);
  fill(cr, v.edge);
  cairo_arc(cr, d.width / 2.0 - 90, 58, 9, 0, 2 * pi);
  fill(cr, v.edge);
  cairo_arc(cr, d.width / 2.0, d.screenY + d.screenH + (d.height - d.screenY - d.screenH) / 2.0, 34, 0, 2 * pi);
  stroke(cr, v.edge, 4);
  cutScreen(cr, d);
}

void drawLaptop(cairo_t* cr, const Device& d, const Variant& v) {
  const double lidX = 100, lidW = d.width - 200, lidH = d.screenY + d.screenH + 44;
  roundedRect(cr, lidX, 0, lidW, lidH + 20, 28);
  fill(cr, v.body);
  roundedRect(cr, lidX + 2, 2, lidW - 4, lidH + 16, 26);
  stroke(cr, v.edge, 3);
  // Camera dot in the top bezel.
  cairo_arc(cr, d.width / 2.0, d.screenY / 2.0, 5, 0, 2 * pi);
  fill(cr, rgb(40, 44, 52));
  // The base: a wide slab with a thumb notch.
  const double baseY = lidH;
  cairo_new_path(cr);
  cairo_move_to(cr, 0, baseY);
  cairo_line_to(cr, d.width, baseY);
  cairo_line_to(cr, d.width - 24, d.height);
  cairo_line_to(cr, 24, d.height);
  cairo_close_path(cr);
  fill(cr, v.edge);
  roundedRect(cr, d.width / 2.0 - 110, baseY, 220, 12, 6);
  fill(cr, v.body);
  cutScreen(cr, d);
}

void drawDisplay(cairo_t* cr, const Device& d, const Variant& v) {
  const double panelH = d.screenY + d.screenH + 40;
  // Stand behind the panel.
  cairo_new_path(cr);
  cairo_move_to(cr, d.width / 2.0 - 70, panelH - 10);
  cairo_line_to(cr, d.width / 2.0 + 70, panelH - 10);
  cairo_line_to(cr, d.width / 2.0 + 90, d.height - 22);
  cairo_line_to(cr, d.width / 2.0 - 90, d.height - 22);
  cairo_close_path(cr);
  fill(cr, v.edge);
  roundedRect(cr, d.width / 2.0 - 230, d.height - 26, 460, 26, 10);
  fill(cr, v.edge);
  roundedRect(cr, 0, 0, d.width, panelH, 18);
  fill(cr, v.body);
  roundedRect(cr, 1.5, 1.5, d.width - 3, panelH - 3, 17);
  stroke(cr, v.edge, 3);
  cutScreen(cr, d);
}

std::vector<Device> devices() {
  return {
      {"vumo-phone-slim",
       "Slim phone",
       10,
       "phone",
       Style::slimPhone,
       652,
       1326,
       32,
       24,
       588,
       1278,
       72,
       {"phone-slim"},
       {{"vumo-phone-slim-graphite", "Graphite", rgb(30, 31, 35), rgb(72, 74, 80), true},
        {"vumo-phone-slim-silver", "Silver", rgb(214, 216, 220), rgb(160, 163, 170), false}}},
      {"vumo-phone-classic",
       "Classic phone",
       20,
       "phone",
       Style::classicPhone,
       600,
       1200,
       30,
       120,
       540,
       960,
       0,
       {},
       {{"vumo-phone-classic-black", "Black", rgb(18, 18, 20), rgb(60, 60, 66), true}}},
      {"vumo-laptop",
       "Laptop",
       30,
       "desktop",
       Style::laptop,
       1560,
       946,
       140,
       36,
       1280,
       800,
       10,
       {},
       {{"vumo-laptop-space-gray", "Space gray", rgb(22, 23, 26), rgb(120, 124, 132), true}}},
      {"vumo-display",
       "Desktop display",
       40,
       "desktop",
       Style::display,
       1328,
       960,
       24,
       24,
       1280,
       720,
       6,
       {},
       {{"vumo-display-black", "Black", rgb(16, 16, 18), rgb(90, 92, 98), true}}},
  };
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);

  nlohmann::json catalog = {{"schemaVersion", 1}, {"devices", nlohmann::json::array()}};
  for (const Device& d : devices()) {
    nlohmann::json variants = nlohmann::json::array();
    for (const Variant& v : d.variants) {
      cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, d.width, d.height);
      cairo_t* cr = cairo_create(surface);
      switch (d.style) {
        case Style::slimPhone: drawSlimPhone(cr, d, v); break;
        case Style::classicPhone: drawClassicPhone(cr, d, v); break;
        case Style::laptop: drawLaptop(cr, d, v); break;
        case Style::display: drawDisplay(cr, d, v); break;
      }
      cairo_destroy(cr);
      const std::string file = v.id + ".png";
      if (cairo_surface_write_to_png(surface, (folder / file).c_str()) != CAIRO_STATUS_SUCCESS) {
        std::fprintf(stderr, "could not write %s\n", file.c_str());
        return 1;
      }
      cairo_surface_destroy(surface);
      variants.push_back(
          {{"id", v.id}, {"name", v.name}, {"file", "device-frames/" + file}, {"isDefault", v.isDefault}});
    }
    nlohmann::json device = {
        {"id", d.id},
        {"name", d.name},
        {"priority", d.priority},
        {"family", d.family},
        {"outerPixelSize", {{"width", d.width}, {"height", d.height}}},
        {"screenRect", {{"x", d.screenX}, {"y", d.screenY}, {"width", d.screenW}, {"height", d.screenH}}},
        {"screenCornerRadius", d.screenRadius},
        {"variants", variants}};
    if (!d.legacyIDs.empty()) device["legacyAssetIDs"] = d.legacyIDs;
    catalog["devices"].push_back(device);
  }
  std::ofstream out(folder / "catalog.json");
  out << catalog.dump(2) << "\n";
  return out ? 0 : 1;
}
