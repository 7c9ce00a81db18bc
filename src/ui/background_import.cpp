#include "ui/background_import.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>

#include "project/project_store.h"
#include "shared/digest.h"
#include "shared/document_limits.h"
#include "shared/error.h"
#include "shared/files.h"

namespace vumo {

namespace {

// Far beyond any screen, and small enough that decoding cannot exhaust memory.
constexpr int maximumSide = 16384;

}  // namespace

CanvasBackgroundImage importCanvasBackgroundImage(ProjectStore& store, const ProjectPackage& package,
                                                  const std::filesystem::path& file) {
  const std::string bytes = readFile(file, documentLimits::canvasBackgroundBytes);
  QByteArray data = QByteArray::fromRawData(bytes.data(), static_cast<qsizetype>(bytes.size()));
  QBuffer input(&data);
  input.open(QIODevice::ReadOnly);
  QImageReader reader(&input);
  const QSize size = reader.size();
  if (!size.isValid() || size.width() > maximumSide || size.height() > maximumSide)
    throw FileError(file.filename().string() + " is not a picture that can be used as a background.");
  reader.setAutoTransform(true);
  QImage image = reader.read();
  if (image.isNull()) throw FileError(file.filename().string() + " is not a picture that can be used as a background.");
  image = image.convertToFormat(QImage::Format_RGB888);

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

}  // namespace vumo
