#include "Barcode.h"

#include "MediaFixture.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>

namespace vantrix::testing {
namespace {

// The picture is a white margin around a kGrid x kGrid grid of black or white cells. Positions are
// fractions of the picture, so the grid is square in fractions whatever the aspect ratio: every
// quarter turn and mirror of the picture maps cells exactly onto cells, which is what lets the
// guard cells below reject such views. Six cells across stay several pixels wide in a 30-pixel-wide
// thumbnail, and tens of pixels (several macroblocks) wide at the fixtures' own sizes.
constexpr int kGrid = 6;
constexpr double kMargin = 1.0 / 16;
constexpr double kCell = (1.0 - 2 * kMargin) / kGrid;

// Cells of fixed colour. Three black corners and one white one tell every turn and mirror apart
// except the mirror along the white corner's diagonal; the black cell below the opposite corner and
// the white one to its right swap under exactly that mirror. A view that moves any guard onto
// another guard of the other colour therefore fails, whatever the data cells hold. The guards also
// give the black and white levels the data cells are judged against.
struct Guard {
  int row;
  int col;
  bool black;
};
constexpr std::array<Guard, 6> kGuards{{
    {0, 0, true},
    {0, kGrid - 1, true},
    {kGrid - 1, 0, true},
    {kGrid - 1, kGrid - 1, false},
    {0, 1, false},
    {1, 0, true},
}};

// The other cells, row by row, carry 20 value bits (most significant first), then a 10-bit CRC
// (x^10+x^9+x^5+x^4+x+1) of them, started from all ones so that value 0 is not a blank code.
constexpr int kValueBits = 20;
constexpr int kCheckBits = 10;
constexpr std::uint32_t kCheckPoly = 0x233;
constexpr std::uint32_t kCheckInit = (1u << kCheckBits) - 1;
static_assert(kValueBits + kCheckBits + static_cast<int>(kGuards.size()) == kGrid * kGrid);
static_assert((std::int64_t{1} << kValueBits) == kBarcodeLimit);

// A reading needs this much difference between the black and white guard levels (of 255), and
// every cell must lie this fraction of that difference away from the midpoint; anything closer
// is a cell straddling two cells of the code, i.e. not an upright view of it.
constexpr double kMinContrast = 60;
constexpr double kMinCellDistance = 0.2;
// Rows and columns darker than this at the picture's edges are letterbox bars, not code.
constexpr double kBarLevel = 48;

using Cells = std::array<std::array<bool, kGrid>, kGrid>;  // true: black

std::optional<bool> guardAt(int row, int col) {
  for (const Guard& g : kGuards)
    if (g.row == row && g.col == col) return g.black;
  return std::nullopt;
}

std::uint32_t checkOf(std::uint32_t value) {
  std::uint32_t reg = kCheckInit;
  for (int i = kValueBits - 1; i >= 0; --i) {
    const bool feedback = (((value >> i) & 1u) != 0) != (((reg >> (kCheckBits - 1)) & 1u) != 0);
    reg = (reg << 1) & kCheckInit;
    if (feedback) reg ^= kCheckPoly;
  }
  return reg;
}

Cells cellsFor(std::uint32_t value) {
  const std::uint64_t word = (std::uint64_t{value} << kCheckBits) | checkOf(value);
  Cells cells{};
  int bit = kValueBits + kCheckBits - 1;
  for (int r = 0; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) {
      const auto guard = guardAt(r, c);
      cells[r][c] = guard ? *guard : ((word >> bit--) & 1u) != 0;
    }
  return cells;
}

// The cell of a fractional position along one axis, or -1 in the margin.
int cellIndex(double fraction) {
  const double i = std::floor((fraction - kMargin) / kCell);
  return i < 0 || i >= kGrid ? -1 : static_cast<int>(i);
}

double rowMean(const QImage& g, int y, int x0, int x1) {
  double sum = 0;
  for (int x = x0; x < x1; ++x) sum += g.constScanLine(y)[x];
  return sum / (x1 - x0);
}

double columnMean(const QImage& g, int x, int y0, int y1) {
  double sum = 0;
  for (int y = y0; y < y1; ++y) sum += g.constScanLine(y)[x];
  return sum / (y1 - y0);
}

// The picture without dark bars along its edges (a letterboxed or pillarboxed view).
QRect withoutBars(const QImage& g) {
  int x0 = 0, y0 = 0, x1 = g.width(), y1 = g.height();
  while (y0 < y1 && rowMean(g, y0, x0, x1) < kBarLevel) ++y0;
  while (y1 > y0 && rowMean(g, y1 - 1, x0, x1) < kBarLevel) --y1;
  if (y0 == y1) return {};
  while (x0 < x1 && columnMean(g, x0, y0, y1) < kBarLevel) ++x0;
  while (x1 > x0 && columnMean(g, x1 - 1, y0, y1) < kBarLevel) --x1;
  return QRect(x0, y0, x1 - x0, y1 - y0);
}

// Pixels whose centres lie in [a, b); at least the one holding the midpoint.
std::pair<int, int> pixelSpan(double a, double b) {
  int first = static_cast<int>(std::ceil(a - 0.5));
  int last = static_cast<int>(std::floor(b - 0.5));
  if (last < first) first = last = static_cast<int>(std::floor((a + b) / 2));
  return {first, last + 1};
}

// Mean level of the middle half of a cell, away from edges that scaling and compression blur.
double cellLevel(const QImage& g, QRect area, int row, int col) {
  const double w = area.width() * kCell, h = area.height() * kCell;
  const double left = area.x() + area.width() * (kMargin + col * kCell);
  const double top = area.y() + area.height() * (kMargin + row * kCell);
  const auto [x0, x1] = pixelSpan(left + w / 4, left + 3 * w / 4);
  const auto [y0, y1] = pixelSpan(top + h / 4, top + 3 * h / 4);
  double sum = 0;
  for (int y = y0; y < y1; ++y)
    for (int x = x0; x < x1; ++x) sum += g.constScanLine(y)[x];
  return sum / ((x1 - x0) * (y1 - y0));
}

}  // namespace

QImage drawBarcode(std::int64_t value, int width, int height) {
  if (value < 0 || value >= kBarcodeLimit || width < 1 || height < 1) {
    std::fprintf(stderr, "drawBarcode: cannot draw %lld at %dx%d\n", static_cast<long long>(value), width, height);
    std::abort();
  }
  const Cells cells = cellsFor(static_cast<std::uint32_t>(value));
  QImage image(width, height, QImage::Format_Grayscale8);
  for (int y = 0; y < height; ++y) {
    uchar* line = image.scanLine(y);
    const int row = cellIndex((y + 0.5) / height);
    for (int x = 0; x < width; ++x) {
      const int col = cellIndex((x + 0.5) / width);
      line[x] = row >= 0 && col >= 0 && cells[row][col] ? 0 : 255;
    }
  }
  return image;
}

std::optional<std::int64_t> readBarcode(const QImage& image) {
  if (image.isNull()) return std::nullopt;
  const QImage gray = image.convertToFormat(QImage::Format_Grayscale8);
  const QRect area = withoutBars(gray);
  if (area.width() < kGrid * 2 || area.height() < kGrid * 2) return std::nullopt;

  std::array<std::array<double, kGrid>, kGrid> level{};
  for (int r = 0; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) level[r][c] = cellLevel(gray, area, r, c);

  double black = 0, white = 0;
  int blacks = 0, whites = 0;
  for (const Guard& g : kGuards) {
    (g.black ? black : white) += level[g.row][g.col];
    ++(g.black ? blacks : whites);
  }
  black /= blacks;
  white /= whites;
  const double contrast = white - black;
  if (contrast < kMinContrast) return std::nullopt;
  const double middle = (black + white) / 2;

  std::uint64_t word = 0;
  for (int r = 0; r < kGrid; ++r)
    for (int c = 0; c < kGrid; ++c) {
      const double offset = level[r][c] - middle;
      if (std::abs(offset) < kMinCellDistance * contrast) return std::nullopt;
      const bool isBlack = offset < 0;
      if (const auto guard = guardAt(r, c)) {
        if (*guard != isBlack) return std::nullopt;
      } else {
        word = (word << 1) | (isBlack ? 1u : 0u);
      }
    }
  const auto value = static_cast<std::uint32_t>(word >> kCheckBits);
  if (checkOf(value) != (word & kCheckInit)) return std::nullopt;
  return value;
}

}  // namespace vantrix::testing
