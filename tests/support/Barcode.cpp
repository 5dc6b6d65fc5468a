#include "FixtureWriter.h"

#include <array>
#include <cmath>
#include <stdexcept>
#include <string>

namespace vantrix::testing {
namespace {

// A white margin around a 6 x 6 grid of black or white cells, placed in fractions of the picture so that every turn and
// mirror maps cells onto cells whatever the aspect ratio; cells stay several pixels wide in a 30-pixel thumbnail.
constexpr int kGrid = 6;
constexpr double kMargin = 1.0 / 16;
constexpr double kCell = (1.0 - 2 * kMargin) / kGrid;

// Guard cells: the corners tell every turn and mirror apart but one, which swaps the last two; any wrong view thus puts
// a guard where one of the other colour belongs. They also give the levels the other cells are judged against.
struct Guard {
  int row, col;
  bool black;
};
constexpr std::array<Guard, 6> kGuards{
    {{0, 0, true}, {0, 5, true}, {5, 0, true}, {5, 5, false}, {0, 1, false}, {1, 0, true}}};

// The other cells, row by row: 20 value bits (most significant first), then a 10-bit CRC (x^10+x^9+x^5+x^4+x+1) of them
// started from all ones, so that value 0 is no blank code.
constexpr int kValueBits = 20, kCheckBits = 10;
constexpr std::uint32_t kCheckInit = (1u << kCheckBits) - 1;
static_assert(kValueBits + kCheckBits + static_cast<int>(kGuards.size()) == kGrid * kGrid);
static_assert((std::int64_t{1} << kValueBits) == kBarcodeLimit);

std::optional<bool> guardAt(int row, int col) {
  for (const Guard& g : kGuards)
    if (g.row == row && g.col == col) return g.black;
  return std::nullopt;
}

std::uint32_t checkOf(std::uint32_t value) {
  std::uint32_t reg = kCheckInit;
  for (int i = kValueBits - 1; i >= 0; --i) {
    const bool feedback = ((value >> i) & 1u) != ((reg >> (kCheckBits - 1)) & 1u);
    reg = (reg << 1) & kCheckInit;
    if (feedback) reg ^= 0x233;
  }
  return reg;
}

// Mean level of the pixels whose centres lie in [x0, x1) x [y0, y1); at least the middle one.
double meanLevel(const QImage& g, double x0, double x1, double y0, double y1) {
  const auto span = [](double a, double b) {
    int first = static_cast<int>(std::ceil(a - 0.5)), last = static_cast<int>(std::floor(b - 0.5));
    if (last < first) first = last = static_cast<int>(std::floor((a + b) / 2));
    return std::pair{first, last + 1};
  };
  const auto [left, right] = span(x0, x1);
  const auto [top, bottom] = span(y0, y1);
  double sum = 0;
  for (int y = top; y < bottom; ++y)
    for (int x = left; x < right; ++x) sum += g.constScanLine(y)[x];
  return sum / ((right - left) * (bottom - top));
}

}  // namespace

QImage drawBarcode(std::int64_t value, int width, int height) {
  if (value < 0 || value >= kBarcodeLimit || width < 1 || height < 1)
    throw std::out_of_range("drawBarcode: cannot draw " + std::to_string(value) + " in " + std::to_string(width) + "x" +
                            std::to_string(height));
  const std::uint64_t word =
      (static_cast<std::uint64_t>(value) << kCheckBits) | checkOf(static_cast<std::uint32_t>(value));
  std::array<std::array<bool, kGrid>, kGrid> cells{};  // true: black
  for (int r = 0, bit = kValueBits + kCheckBits - 1; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) {
      const auto guard = guardAt(r, c);
      cells[r][c] = guard ? *guard : ((word >> bit--) & 1u) != 0;
    }
  const auto cell = [](double fraction) {  // -1 in the margin
    const double i = std::floor((fraction - kMargin) / kCell);
    return i < 0 || i >= kGrid ? -1 : static_cast<int>(i);
  };
  QImage image(width, height, QImage::Format_Grayscale8);
  for (int y = 0; y < height; ++y) {
    uchar* line = image.scanLine(y);
    const int row = cell((y + 0.5) / height);
    for (int x = 0; x < width; ++x) {
      const int col = cell((x + 0.5) / width);
      line[x] = row >= 0 && col >= 0 && cells[row][col] ? 0 : 255;
    }
  }
  return image;
}

std::optional<std::int64_t> readBarcode(const QImage& image) {
  if (image.isNull()) return std::nullopt;
  const QImage g = image.convertToFormat(QImage::Format_Grayscale8);
  // Rows and columns darker than 48 at the edges are letterbox or pillarbox bars, not code.
  double x0 = 0, y0 = 0, x1 = g.width(), y1 = g.height();
  while (y0 < y1 && meanLevel(g, x0, x1, y0, y0 + 1) < 48) ++y0;
  while (y1 > y0 && meanLevel(g, x0, x1, y1 - 1, y1) < 48) --y1;
  while (y1 > y0 && x0 < x1 && meanLevel(g, x0, x0 + 1, y0, y1) < 48) ++x0;
  while (y1 > y0 && x1 > x0 && meanLevel(g, x1 - 1, x1, y0, y1) < 48) --x1;
  const double w = x1 - x0, h = y1 - y0;
  if (w < kGrid * 2 || h < kGrid * 2) return std::nullopt;

  // Each cell's level is the mean of its middle half, away from edges that scaling and coding blur.
  std::array<std::array<double, kGrid>, kGrid> level{};
  double black = 0, white = 0;
  for (int r = 0; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) {
      const double left = x0 + w * (kMargin + (c + 0.25) * kCell), top = y0 + h * (kMargin + (r + 0.25) * kCell);
      level[r][c] = meanLevel(g, left, left + w * kCell / 2, top, top + h * kCell / 2);
      if (const auto guard = guardAt(r, c))
        (*guard ? black : white) += level[r][c] / (*guard ? 4 : 2);  // 4 black, 2 white
    }
  // A cell nearer the middle than a fifth of the guards' contrast (60 of 255 or more) straddles two: not upright.
  const double contrast = white - black, middle = (black + white) / 2;
  if (contrast < 60) return std::nullopt;
  std::uint64_t word = 0;
  for (int r = 0; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) {
      const double offset = level[r][c] - middle;
      if (std::abs(offset) < 0.2 * contrast) return std::nullopt;
      if (const auto guard = guardAt(r, c)) {
        if (*guard != (offset < 0)) return std::nullopt;
      } else {
        word = (word << 1) | (offset < 0 ? 1u : 0u);
      }
    }
  const auto value = static_cast<std::uint32_t>(word >> kCheckBits);
  if (checkOf(value) != (word & kCheckInit)) return std::nullopt;
  return value;
}

}  // namespace vantrix::testing
