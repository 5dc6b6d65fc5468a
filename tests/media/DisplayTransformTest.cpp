#include "media/DisplayTransform.h"

extern "C" {
#include <libavutil/display.h>
}

#include <gtest/gtest.h>

namespace vantrix {
namespace {

// FFmpeg's matrix for a picture shown turned clockwise by `degrees`, optionally mirrored.
DisplayTransform::Matrix matrix(double degrees, bool hflip = false) {
  DisplayTransform::Matrix m{};
  av_display_rotation_set(m.data(), degrees);
  av_display_matrix_flip(m.data(), hflip ? 1 : 0, 0);
  return m;
}

// A 3 x 2 stored picture, black but for one red pixel in its top-left corner.
QImage marked() {
  QImage image(3, 2, QImage::Format_RGB32);
  image.fill(Qt::black);
  image.setPixel(0, 0, qRgb(255, 0, 0));
  return image;
}

TEST(DisplayTransform, QuarterTurnsAndMirrorsPutTheStoredCornerWhereItIsShown) {
  const struct {
    const char* what;
    DisplayTransform::Matrix m;
    int clockwise;
    QSize shown;
    QPoint corner;  // where the stored top-left pixel is shown
  } cases[] = {
      {"identity", matrix(0), 0, {3, 2}, {0, 0}},
      {"90", matrix(90), 90, {2, 3}, {1, 0}},
      {"180", matrix(180), 180, {3, 2}, {2, 1}},
      {"-90", matrix(-90), 270, {2, 3}, {0, 2}},
      {"80 snaps to a quarter turn", matrix(80), 90, {2, 3}, {1, 0}},
      {"horizontal mirror", matrix(0, true), 180, {3, 2}, {2, 0}},
      {"mirrored quarter turn: a transpose", matrix(90, true), 90, {2, 3}, {0, 0}},
      {"all zero: shown as stored", DisplayTransform::Matrix{}, 0, {3, 2}, {0, 0}},
  };
  for (const auto& c : cases) {
    const DisplayTransform t(c.m);
    EXPECT_EQ(t.rotationDegrees(), c.clockwise) << c.what;
    EXPECT_EQ(t.swapsAxes(), c.clockwise == 90 || c.clockwise == 270) << c.what;
    const QImage shown = t.applied(marked());
    ASSERT_EQ(shown.size(), c.shown) << c.what;
    EXPECT_EQ(shown.pixel(c.corner), qRgb(255, 0, 0)) << c.what;
  }
}

TEST(DisplayTransform, DefaultIsTheIdentityMatrix) {
  const DisplayTransform t;
  EXPECT_TRUE(t.isIdentity());
  EXPECT_EQ(t.matrix(), matrix(0));
  EXPECT_FALSE(DisplayTransform(matrix(90)).isIdentity());
}

}  // namespace
}  // namespace vantrix
