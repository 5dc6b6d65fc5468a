#pragma once

#include <QAbstractButton>
#include <QColor>

#include <optional>

namespace vantrix {

// A plain button (no bezel) whose label is one drawn symbol: a filled circle with a check mark or
// a cross, or the play and pause marks of a transport. The symbol is sized like a glyph of the
// given point size. In the default rendering the symbol takes the palette's text colour and the
// mark inside a circle is cut out of it; with a palette rendering the mark and the circle each
// have their own colour. GUI thread.
class SymbolButton final : public QAbstractButton {
  Q_OBJECT

 public:
  enum class Symbol { checkmarkCircleFill, xmarkCircleFill, play, pause };

  SymbolButton(Symbol symbol, double pointSize, QWidget* parent = nullptr);

  Symbol symbol() const { return m_symbol; }
  void setSymbol(Symbol symbol);
  // Mark over circle colours (palette rendering); none returns to the default rendering.
  void setPaletteColours(std::optional<QColor> mark, std::optional<QColor> circle);
  // A fixed colour for the default rendering instead of the palette's text colour.
  void setTint(std::optional<QColor> tint);

  QSize sizeHint() const override;

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  Symbol m_symbol;
  double m_pointSize;
  std::optional<QColor> m_mark;
  std::optional<QColor> m_circle;
  std::optional<QColor> m_tint;
};

}  // namespace vantrix
