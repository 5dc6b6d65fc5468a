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
  return {{"turned 90", upright.transformed(QTransform().rotate(90))},
          {"turned 180", upright.transformed(QTransform().rotate(180))},
          {"turned 270", upright.transformed(QTransform().rotate(270))},
          {"mirrored left-right", upright.mirrored(true, false)},
          {"mirrored top-bottom", upright.mirrored(false, true)},
          {"transposed", upright.transformed(QTransform(0, 1, 1, 0, 0, 0))},
          {"anti-transposed", upright.transformed(QTransform(0, -1, -1, 0, 0, 0))}};
}

std::vector<std::int64_t> sampleValues(int randomCount = 300) {
  std::vector<std::int64_t> values{0, 1, 2, 29, 30, 89, 1000, 65535, kBarcodeLimit - 1};
  std::mt19937 random(7);
  std::uniform_int_distribution<std::int64_t> any(0, kBarcodeLimit - 1);
  for (int i = 0; i < randomCount; ++i) values.push_back(any(random));
  return values;
}

TEST(Barcode, ReadsBackEveryValueAtEverySizeAndShape) {
  for (const QSize size : {QSize(320, 240), QSize(240, 320), QSize(53, 40), QSize(30, 40), QSize(12, 12)})
    for (std::int64_t value : sampleValues())
      ASSERT_EQ(readBarcode(drawBarcode(value, size.width(), size.height())), Code(value))
          << value << " at " << size.width() << "x" << size.height();
  for (std::int64_t value : {std::int64_t{0}, std::int64_t{12345}, kBarcodeLimit - 1})
    EXPECT_EQ(readBarcode(drawBarcode(value, 1920, 1080)), Code(value));
}

// The check bits alone would let about one wrong view in a thousand through; only the guard cells
// make it none, so enough values are looked at to notice a guard that does not do its job.
TEST(Barcode, TurnedOrMirroredViewsNeverRead) {
  for (std::int64_t value : sampleValues(20000))
    for (const auto& [view, image] : wrongViews(drawBarcode(value, 24, 24)))
      ASSERT_EQ(readBarcode(image), std::nullopt) << value << " " << view;
  for (const QSize size : {QSize(320, 240), QSize(64, 48)})
    for (std::int64_t value : sampleValues()) {
      const QImage upright = drawBarcode(value, size.width(), size.height());
      for (const QImage& picture : {upright, upright.scaledToHeight(40, Qt::SmoothTransformation)})
        for (const auto& [view, image] : wrongViews(picture))
          ASSERT_EQ(readBarcode(image), std::nullopt) << value << " " << view << " from " << picture.width();
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

// A picture letterboxed or pillarboxed in a view of another shape still reads.
TEST(Barcode, ReadsThroughBlackBars) {
  QImage view(480, 360, QImage::Format_RGB32);
  view.fill(Qt::black);
  QPainter(&view).drawImage(QRect(105, 0, 270, 360), drawBarcode(4242, 240, 320));
  EXPECT_EQ(readBarcode(view), Code(4242));
  EXPECT_EQ(readBarcode(view.scaledToHeight(48, Qt::SmoothTransformation)), Code(4242));
}

}  // namespace
}  // namespace vantrix::testing
