#include "media/DisplayTransform.h"

#include <cmath>
#include <numbers>

namespace vantrix {
namespace {

constexpr std::int32_t kOne16 = 1 << 16;
constexpr std::int32_t kOne30 = 1 << 30;
constexpr DisplayTransform::Matrix kIdentity{kOne16, 0, 0, 0, kOne16, 0, 0, 0, kOne30};

}  // namespace

DisplayTransform::DisplayTransform() : m_matrix(kIdentity) {}

DisplayTransform::DisplayTransform(const Matrix& matrix) : m_matrix(matrix) {
  const double a = matrix[0] / 65536.0;
  const double b = matrix[1] / 65536.0;
  const double c = matrix[3] / 65536.0;
  const double d = matrix[4] / 65536.0;
  const double determinant = a * d - b * c;
  if (!std::isfinite(determinant) || determinant == 0) return;  // degenerate: show as stored
  // The stored x axis is shown along (a, b); in image coordinates a positive angle turns clockwise.
  const double degrees = std::atan2(b, a) * 180.0 / std::numbers::pi;
  const long quarter = std::lround(degrees / 90.0);
  m_rotation = static_cast<int>(((quarter % 4) + 4) % 4) * 90;
  m_mirrored = determinant < 0;
}

bool DisplayTransform::isIdentity() const { return m_matrix == kIdentity; }

QTransform DisplayTransform::orientation() const {
  // Unit vectors along which the stored x and y axes are shown.
  static constexpr int kCos[4] = {1, 0, -1, 0};
  static constexpr int kSin[4] = {0, 1, 0, -1};
  const int q = m_rotation / 90;
  const int a = kCos[q];
  const int b = kSin[q];
  const int c = m_mirrored ? b : -b;
  const int d = m_mirrored ? -a : a;
  return QTransform(a, b, c, d, 0, 0);
}

QImage DisplayTransform::applied(const QImage& stored) const {
  if (m_rotation == 0 && !m_mirrored) return stored;
  return stored.transformed(orientation());
}

}  // namespace vantrix
