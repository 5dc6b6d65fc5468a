#pragma once

#include <QImage>
#include <QTransform>

#include <array>
#include <cstdint>

namespace vantrix {

// How a video track's stored pixels are turned to be shown upright: the container's display
// matrix. The raw matrix is kept for writing it back unchanged on export; for showing pictures it
// is reduced to its nearest quarter turn and optional mirror, which is what cameras write.
//
// A plain value; thread-safe to copy and read.
class DisplayTransform {
 public:
  // FFmpeg's layout, row major: a b u / c d v / x y w, with a, b, c, d, x, y in 16.16 fixed point
  // and u, v, w in 2.30. A stored pixel (px, py) is shown at (a px + c py + x, b px + d py + y),
  // in image coordinates (y grows downwards).
  using Matrix = std::array<std::int32_t, 9>;

  DisplayTransform();  // identity
  explicit DisplayTransform(const Matrix& matrix);

  const Matrix& matrix() const { return m_matrix; }
  bool isIdentity() const;

  // Clockwise quarter turn applied when showing the picture: 0, 90, 180 or 270.
  int rotationDegrees() const { return m_rotation; }
  // Whether the picture is also mirrored (a matrix with negative determinant).
  bool isMirrored() const { return m_mirrored; }
  // True for 90 and 270: the shown width is the stored height.
  bool swapsAxes() const { return m_rotation == 90 || m_rotation == 270; }

  // The quarter turn and mirror as a transform of image coordinates, without translation.
  QTransform orientation() const;
  // `stored` as it is to be shown. Exact for every quarter turn and mirror (no resampling).
  QImage applied(const QImage& stored) const;

  friend bool operator==(const DisplayTransform& a, const DisplayTransform& b) { return a.m_matrix == b.m_matrix; }

 private:
  Matrix m_matrix;
  int m_rotation = 0;
  bool m_mirrored = false;
};

}  // namespace vantrix
