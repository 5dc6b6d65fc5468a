#include "Barcode.h"
#include "MediaFixture.h"

#include <QPainter>
#include <QTransform>

#include <gtest/gtest.h>

#include <random>

namespace vantrix::testing {
namespace {

using Code = std::optional<std::int64_t>;

// Every way of showing a picture other than upright: three turns and four mirrors.
std::vector<std::pair<const char*, QImage>> wrongViews(const QImage& upright) {
  return {
      {"turned 90", upright.transformed(QTransform().rotate(90))},
      {"turned 180", upright.transformed(QTransform().rotate(180))},
      {"turned 270", upright.transformed(QTransform().rotate(270))},
      {"mirrored left-right", upright.mirrored(true, false)},
      {"mirrored top-bottom", upright.mirrored(false, true)},
      {"transposed", upright.transformed(QTransform(0, 1, 1, 0, 0, 0))},
      {"anti-transposed", upright.transformed(QTransform(0, -1, -1, 0, 0, 0))},
  };
}

std::vector<std::int64_t> sampleValues(int randomCount = 300) {
  std::vector<std::int64_t> values{0, 1, 2, 29, 30, 89, 1000, 65535, kBarcodeLimit - 1};
  std::mt19937 random(7);
  std::uniform_int_distribution<std::int64_t> any(0, kBarcodeLimit - 1);
  for (int i = 0; i < randomCount; ++i) values.push_back(any(random));
  return values;
}

TEST(Barcode, ReadsBackEveryValueAtEverySizeAndShape) {
  const QSize sizes[] = {{320, 240}, {240, 320}, {53, 40}, {30, 40}, {12, 12}};
  for (const QSize size : sizes)
    for (std::int64_t value : sampleValues())
      ASSERT_EQ(readBarcode(drawBarcode(value, size.width(), size.height())), Code(value))
          << value << " at " << size.width() << "x" << size.height();
  for (std::int64_t value : {std::int64_t{0}, std::int64_t{12345}, kBarcodeLimit - 1})
    EXPECT_EQ(readBarcode(drawBarcode(value, 1920, 1080)), Code(value));
}

// The check bits alone would let about one wrong view in a thousand through; only the guard
// cells make it none, so this looks at enough values to notice a guard that does not do its job.
TEST(Barcode, TurnedOrMirroredViewsNeverRead) {
  for (std::int64_t value : sampleValues(20000))
    for (const auto& [view, image] : wrongViews(drawBarcode(value, 24, 24)))
      ASSERT_EQ(readBarcode(image), std::nullopt) << value << " " << view;
  for (const QSize size : {QSize(320, 240), QSize(64, 48)})
    for (std::int64_t value : sampleValues()) {
      const QImage upright = drawBarcode(value, size.width(), size.height());
      for (const auto& [view, image] : wrongViews(upright))
        ASSERT_EQ(readBarcode(image), std::nullopt) << value << " " << view << " at " << size.width();
      const QImage thumbnail = upright.scaledToHeight(40, Qt::SmoothTransformation);
      for (const auto& [view, image] : wrongViews(thumbnail))
        ASSERT_EQ(readBarcode(image), std::nullopt) << value << " " << view << " as a thumbnail";
    }
}

TEST(Barcode, PicturesWithoutACodeDoNotRead) {
  QImage white(320, 240, QImage::Format_RGB32), black = white, gray = white, noise = white;
  white.fill(Qt::white);
  black.fill(Qt::black);
  gray.fill(QColor(128, 128, 128));
  std::mt19937 random(3);
  for (int y = 0; y < noise.height(); ++y)
    for (int x = 0; x < noise.width(); ++x) noise.setPixel(x, y, random() % 2 ? 0xffffffff : 0xff000000);
  for (const QImage& image : {white, black, gray, noise, QImage()}) EXPECT_EQ(readBarcode(image), std::nullopt);
}

// A picture shown letterboxed or pillarboxed in a view of another shape still reads.
TEST(Barcode, ReadsThroughBlackBars) {
  const QImage code = drawBarcode(4242, 240, 320);
  QImage view(480, 360, QImage::Format_RGB32);
  view.fill(Qt::black);
  QPainter painter(&view);
  painter.drawImage(QRect(105, 0, 270, 360), code);
  painter.end();
  EXPECT_EQ(readBarcode(view), Code(4242));
  EXPECT_EQ(readBarcode(view.scaledToHeight(48, Qt::SmoothTransformation)), Code(4242));
}

// Decoded frames (after lossy coding) shrunk to filmstrip thumbnails still name their frame.
TEST(Barcode, DecodedFramesReadAsThumbnails) {
  for (int rotation : {0, 90}) {
    FixtureSpec recipe;
    recipe.seconds = 1;
    recipe.rotation = rotation;
    recipe.audio = AudioLayout::none;
    const std::vector<QImage> pictures = readPictures(fixture(recipe));
    ASSERT_EQ(static_cast<std::int64_t>(pictures.size()), frameCount(recipe));
    for (std::size_t i = 0; i < pictures.size(); ++i)
      for (int height : {60, 40, 30})
        for (Qt::TransformationMode mode : {Qt::SmoothTransformation, Qt::FastTransformation})
          ASSERT_EQ(readBarcode(pictures[i].scaledToHeight(height, mode)), Code(static_cast<std::int64_t>(i)))
              << "frame " << i << " rotation " << rotation << " height " << height;
  }
}

}  // namespace
}  // namespace vantrix::testing
