#pragma once

#include "media/Player.h"
#include "media/VideoOutput.h"

#include <QPointer>
#include <QRectF>
#include <QWidget>

#include <optional>

class QLabel;

namespace vantrix {

class SymbolButton;

// The preview: the player's pictures on black, scaled to fit with the whole frame visible
// (letterboxed, aspect kept, the display rotation applied), over an inline transport bar with
// play/pause and the time in the edited video. There is no full-screen control.
//
// The view is the player's video output and asks it for pictures of exactly the size they are
// shown at (in device pixels, stored orientation), so they are painted 1:1. Setting the player it
// already shows changes nothing: playback position and state stay untouched. GUI thread; the
// player may go away first (the view then shows black).
class PlayerView final : public QWidget, public VideoOutput {
  Q_OBJECT

 public:
  static constexpr int kTransportHeight = 36;

  explicit PlayerView(QWidget* parent = nullptr);
  ~PlayerView() override;

  void setPlayer(Player* player);
  Player* player() const { return m_player.data(); }

  // Where pictures are shown: the area above the transport bar, and within it the fitted frame.
  QRectF videoRect() const;
  QRectF pictureRect() const;

  void present(const PlayerFrame& frame) override;
  void clear() override;

  QSize sizeHint() const override { return {640, 360}; }
  QSize minimumSizeHint() const override { return {240, 135 + kTransportHeight}; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  // The source picture's shown size (pixel aspect and quarter turns applied); empty if unknown.
  QSizeF displaySize() const;
  void requestPictureSize();
  void refreshTransport();

  QPointer<Player> m_player;
  std::optional<PlayerFrame> m_frame;
  QMetaObject::Connection m_statusConnection;
  SymbolButton* m_playPause;
  QLabel* m_time;
};

}  // namespace vantrix
