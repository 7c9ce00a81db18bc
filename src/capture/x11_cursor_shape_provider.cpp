#include "capture/x11_cursor_shape_provider.h"

#include <png.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <csetjmp>
#include <vector>

#include "capture/capture_error.h"
#include "capture/x11_connection.h"

namespace vumo {

namespace {

// Cursors are at most a few hundred pixels wide; anything larger is not a pointer image.
constexpr int maximumCursorSide = 1024;

void appendToString(png_structp png, png_bytep data, png_size_t length) {
  static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(data), length);
}

}  // namespace

std::string encodePremultipliedARGBAsPNG(const std::uint32_t* pixels, int width, int height) {
  if (width <= 0 || height <= 0 || width > maximumCursorSide || height > maximumCursorSide) return {};
  std::vector<std::uint8_t> rgba(std::size_t(width) * std::size_t(height) * 4);
  for (std::size_t i = 0; i < std::size_t(width) * std::size_t(height); ++i) {
    std::uint32_t p = pixels[i];
    unsigned alpha = p >> 24;
    auto straight = [alpha](unsigned channel) {
      return std::uint8_t(alpha == 0 ? 0 : std::min(255u, (channel * 255 + alpha / 2) / alpha));
    };
    rgba[i * 4 + 0] = straight((p >> 16) & 0xFF);
    rgba[i * 4 + 1] = straight((p >> 8) & 0xFF);
    rgba[i * 4 + 2] = straight(p & 0xFF);
    rgba[i * 4 + 3] = std::uint8_t(alpha);
  }
  std::string encoded;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return {};
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, info ? &info : nullptr);
    return {};
  }
  png_set_write_fn(png, &encoded, appendToString, nullptr);
  png_set_IHDR(png, info, png_uint_32(width), png_uint_32(height), 8, PNG_COLOR_TYPE_RGBA, PNG_INTERLACE_NONE,
               PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  for (int row = 0; row < height; ++row) png_write_row(png, rgba.data() + std::size_t(row) * std::size_t(width) * 4);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return encoded;
}

struct X11CursorShapeProvider::State {
  X11Connection x;
  std::optional<std::uint32_t> lastSerial;
  std::optional<CapturedCursorShape> lastShape;

  explicit State(const std::string& displayName) : x(displayName) {
    x.requireExtension(&xcb_xfixes_id, "XFIXES");
    XcbReply<xcb_xfixes_query_version_reply_t> version(
        xcb_xfixes_query_version_reply(x.get(), xcb_xfixes_query_version(x.get(), 4, 0), nullptr));
    if (!version || version->major_version < 2) throw CaptureError(CaptureError::Case::extensionMissing, "XFIXES 2");
  }
};

X11CursorShapeProvider::X11CursorShapeProvider(const std::string& displayName)
    : state_(std::make_unique<State>(displayName)) {}

X11CursorShapeProvider::~X11CursorShapeProvider() = default;

std::optional<CapturedCursorShape> X11CursorShapeProvider::captureCurrentCursor() {
  std::lock_guard lock(lock_);
  auto& x = state_->x;
  if (x.hasError()) return std::nullopt;
  XcbReply<xcb_xfixes_get_cursor_image_reply_t> image(
      xcb_xfixes_get_cursor_image_reply(x.get(), xcb_xfixes_get_cursor_image(x.get()), nullptr));
  if (!image) return std::nullopt;
  if (state_->lastSerial == image->cursor_serial) return state_->lastShape;
  int width = image->width, height = image->height;
  if (xcb_xfixes_get_cursor_image_cursor_image_length(image.get()) < width * height) return std::nullopt;
  std::string png = encodePremultipliedARGBAsPNG(xcb_xfixes_get_cursor_image_cursor_image(image.get()), width, height);
  std::optional<CapturedCursorShape> shape;
  if (!png.empty())
    shape = CapturedCursorShape{std::move(png), SizeValue{double(width), double(height)},
                                PointValue{double(image->xhot), double(image->yhot)}};
  state_->lastSerial = image->cursor_serial;
  state_->lastShape = shape;
  return shape;
}

}  // namespace vumo
