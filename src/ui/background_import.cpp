#include "ui/background_import.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <optional>

#include "cli/cli_errors.h"
#include "cli/media_module_loader.h"
#include "media/media_module.h"
#include "project/project_store.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

namespace {

// Far beyond any screen, and small enough that decoding cannot exhaust memory.
constexpr int maximumSide = 16384;

std::string readCandidate(const std::filesystem::path& file) {
  return readFile(file, documentLimits::canvasBackgroundBytes);
}

// The picture in `bytes`, upright; none when they are no picture of a size a wallpaper may have.
std::optional<QImage> decodedPicture(const std::string& bytes) {
  QByteArray data = QByteArray::fromRawData(bytes.data(), static_cast<qsizetype>(bytes.size()));
  QBuffer input(&data);
  input.open(QIODevice::ReadOnly);
  QImageReader reader(&input);
  const QSize size = reader.size();
  if (!size.isValid() || size.width() > maximumSide || size.height() > maximumSide) return std::nullopt;
  reader.setAutoTransform(true);
  QImage image = reader.read();
  if (image.isNull()) return std::nullopt;
  return image;
}

CanvasBackgroundImage storedPicture(ProjectStore& store, const ProjectPackage& package, const QImage& picture) {
  const QImage image = picture.convertToFormat(QImage::Format_RGB888);
  QByteArray encoded;
  QBuffer output(&encoded);
  output.open(QIODevice::WriteOnly);
  if (!image.save(&output, "JPG", 92)) throw FileError("The background picture could not be encoded.");
  std::string jpeg(encoded.constData(), static_cast<std::size_t>(encoded.size()));

  CanvasBackgroundImage descriptor;
  descriptor.id = sha256Hex(jpeg);
  descriptor.relativePath = "assets/backgrounds/" + descriptor.id + ".jpg";
  descriptor.pixelSize = PixelSize{image.width(), image.height()};
  descriptor.source = CanvasBackgroundImageSource::uploaded;
  descriptor.mediaKind = CanvasBackgroundMediaKind::image;
  store.writeCanvasBackgroundAsset(CanvasBackgroundAssetPayload{descriptor, std::move(jpeg)}, package);
  return descriptor;
}

// `bytes` are the file's, read before the engine looked at it: what is stored is what was read.
CanvasBackgroundImage storedVideo(ProjectStore& store, const ProjectPackage& package, const std::filesystem::path& file,
                                  std::string bytes, const MediaModule& engine) {
  if (engine.describeVideoFile == nullptr) throw MediaModuleError::unavailable("it cannot describe movies");
  const auto video = engine.describeVideoFile(file, {});
  if (!video || video->pixelSize.width > maximumSide || video->pixelSize.height > maximumSide)
    throw FileError(file.filename().string() + " is not a picture or video that can be used as a background.");

  CanvasBackgroundImage descriptor;
  descriptor.id = sha256Hex(bytes);
  // The store keeps every movie under one extension; the reader goes by the content.
  descriptor.relativePath = "assets/backgrounds/" + descriptor.id + ".mov";
  descriptor.pixelSize = video->pixelSize;
  descriptor.source = CanvasBackgroundImageSource::uploaded;
  descriptor.mediaKind = CanvasBackgroundMediaKind::video;
  descriptor.duration = static_cast<double>(video->duration.nanoseconds) / 1e9;
  store.writeCanvasBackgroundAsset(CanvasBackgroundAssetPayload{descriptor, std::move(bytes)}, package);
  return descriptor;
}

}  // namespace

CanvasBackgroundImage importCanvasBackgroundImage(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file) {
  const auto picture = decodedPicture(readCandidate(file));
  if (!picture) throw FileError(file.filename().string() + " is not a picture that can be used as a background.");
  return storedPicture(store, package, *picture);
}

CanvasBackgroundImage importCanvasBackgroundVideo(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file, const MediaModule& engine) {
  return storedVideo(store, package, file, readCandidate(file), engine);
}

CanvasBackgroundImage importCanvasBackground(ProjectStore& store, const ProjectPackage& package,
                                             const std::filesystem::path& file) {
  std::string bytes = readCandidate(file);
  if (const auto picture = decodedPicture(bytes)) return storedPicture(store, package, *picture);
  return storedVideo(store, package, file, std::move(bytes), MediaModuleLoader::load());
}

}  // namespace vumo
