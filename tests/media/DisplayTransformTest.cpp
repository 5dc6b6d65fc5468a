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
    DisplayTransform t;
    int clockwise;
    QSize shown;
    QPoint corner;  // where the stored top-left pixel is shown
  } cases[] = {
      {"default", DisplayTransform(), 0, {3, 2}, {0, 0}},
      {"90", DisplayTransform(matrix(90)), 90, {2, 3}, {1, 0}},
      {"180", DisplayTransform(matrix(180)), 180, {3, 2}, {2, 1}},
      {"-90", DisplayTransform(matrix(-90)), 270, {2, 3}, {0, 2}},
      {"80 snaps to a quarter turn", DisplayTransform(matrix(80)), 90, {2, 3}, {1, 0}},
      {"horizontal mirror", DisplayTransform(matrix(0, true)), 180, {3, 2}, {2, 0}},
      {"mirrored quarter turn: a transpose", DisplayTransform(matrix(90, true)), 90, {2, 3}, {0, 0}},
      {"all zero: shown as stored", DisplayTransform(DisplayTransform::Matrix{}), 0, {3, 2}, {0, 0}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.t.rotationDegrees(), c.clockwise) << c.what;
    const QImage shown = c.t.applied(marked());
    ASSERT_EQ(shown.size(), c.shown) << c.what;
    EXPECT_EQ(shown.pixel(c.corner), qRgb(255, 0, 0)) << c.what;
  }
  // The writer leaves the matrix out only for the identity.
  EXPECT_TRUE(DisplayTransform().isIdentity());
  EXPECT_FALSE(DisplayTransform(matrix(90)).isIdentity());
}

}  // namespace
}  // namespace vantrix
