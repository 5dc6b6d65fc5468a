#include "views/PlayerView.h"

#include "media/Composition.h"
#include "media/MediaAsset.h"
#include "views/Appearance.h"
#include "views/SymbolButton.h"
#include "views/Timecode.h"

#include <QLabel>
#include <QPainter>

#include <cmath>

namespace vantrix {
namespace {

const QColor kTransportColour(28, 28, 30);

}  // namespace

PlayerView::PlayerView(QWidget* parent)
    : QWidget(parent), m_playPause(new SymbolButton(SymbolButton::Symbol::play, 16, this)), m_time(new QLabel(this)) {
  setAccessibleName(QStringLiteral("Video preview"));
  setAttribute(Qt::WA_OpaquePaintEvent);
  m_playPause->setTint(QColor(Qt::white));
  m_playPause->setFixedSize(28, 28);
  m_playPause->setEnabled(false);
  connect(m_playPause, &SymbolButton::clicked, this, [this] {
    if (!m_player) return;
    if (m_player->timeControlStatus() != Player::TimeControlStatus::paused)
      m_player->pause();
    else
      m_player->play();
  });
  m_time->setFont(Appearance::captionMonospacedFont());
  QPalette light = m_time->palette();
  light.setColor(QPalette::WindowText, QColor(235, 235, 240));
  m_time->setPalette(light);
  refreshTransport();
}

PlayerView::~PlayerView() {
  if (m_player) m_player->setVideoOutput(nullptr);
}

void PlayerView::setPlayer(Player* player) {
  if (player == m_player.data()) return;
  if (m_player) m_player->setVideoOutput(nullptr);
  disconnect(m_statusConnection);
  m_frame.reset();
  m_player = player;
  if (m_player) {
    m_statusConnection =
        connect(m_player.data(), &Player::timeControlStatusChanged, this, &PlayerView::refreshTransport);
    requestPictureSize();
    m_player->setVideoOutput(this);
  }
  refreshTransport();
  update();
}

QRectF PlayerView::videoRect() const {
  return {0, 0, static_cast<double>(width()), static_cast<double>(height() - kTransportHeight)};
}

QSizeF PlayerView::displaySize() const {
  const std::shared_ptr<const Composition> item = m_player ? m_player->currentItem() : nullptr;
  if (item && item->asset() && item->asset()->video()) {
    const VideoTrack& video = *item->asset()->video();
    const AVRational sar =
        video.sampleAspectRatio.num > 0 && video.sampleAspectRatio.den > 0 ? video.sampleAspectRatio : AVRational{1, 1};
    const QSizeF stored(video.width * static_cast<double>(sar.num) / sar.den, video.height);
    return item->transform().swapsAxes() ? stored.transposed() : stored;
  }
  if (m_frame && !m_frame->image.isNull()) {
    const QSizeF stored = m_frame->image.size();
    return m_frame->transform.swapsAxes() ? stored.transposed() : stored;
  }
  return {};
}

QRectF PlayerView::pictureRect() const {
  const QRectF area = videoRect();
  const QSizeF shown = displaySize();
  if (shown.isEmpty() || area.isEmpty()) return {};
  const QSizeF fitted = shown.scaled(area.size(), Qt::KeepAspectRatio);
  return {area.center() - QPointF(fitted.width() / 2, fitted.height() / 2), fitted};
}

void PlayerView::requestPictureSize() {
  if (!m_player) return;
  const QRectF picture = pictureRect();
  if (picture.isEmpty()) return;
  const std::shared_ptr<const Composition> item = m_player->currentItem();
  const bool swaps = item && item->transform().swapsAxes();
  const double scale = devicePixelRatioF();
  QSize pixels(static_cast<int>(std::lround(picture.width() * scale)),
               static_cast<int>(std::lround(picture.height() * scale)));
  if (swaps) pixels.transpose();
  m_player->setVideoSize(pixels);
}

void PlayerView::present(const PlayerFrame& frame) {
  m_frame = frame;
  refreshTransport();
  update();
}

void PlayerView::clear() {
  m_frame.reset();
  update();
}

void PlayerView::refreshTransport() {
  const bool playing = m_player && m_player->timeControlStatus() != Player::TimeControlStatus::paused;
  m_playPause->setEnabled(m_player != nullptr);
  m_playPause->setSymbol(playing ? SymbolButton::Symbol::pause : SymbolButton::Symbol::play);
  const QString action = playing ? QStringLiteral("Pause") : QStringLiteral("Play");
  m_playPause->setAccessibleName(action);
  m_playPause->setToolTip(action);
  const std::shared_ptr<const Composition> item = m_player ? m_player->currentItem() : nullptr;
  const QString text =
      item ? timecodeText(m_player->currentTime()) + QStringLiteral(" / ") + timecodeText(item->duration())
           : QStringLiteral("0:00 / 0:00");
  if (m_time->text() != text) m_time->setText(text);
  m_time->adjustSize();
}

void PlayerView::resizeEvent(QResizeEvent*) {
  const int bandTop = height() - kTransportHeight;
  m_playPause->move(10, bandTop + (kTransportHeight - m_playPause->height()) / 2);
  m_time->move(m_playPause->geometry().right() + 10, bandTop + (kTransportHeight - m_time->height()) / 2);
  requestPictureSize();
}

void PlayerView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(videoRect(), Qt::black);
  painter.fillRect(QRectF(0, height() - kTransportHeight, width(), kTransportHeight), kTransportColour);
  if (!m_frame || m_frame->image.isNull()) return;
  const QRectF picture = pictureRect();
  if (picture.isEmpty()) return;
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.translate(picture.center());
  painter.setTransform(m_frame->transform.orientation(), true);
  // In stored orientation the picture is as wide as the shown one is tall after a quarter turn.
  const QSizeF stored = m_frame->transform.swapsAxes() ? picture.size().transposed() : picture.size();
  painter.drawImage(QRectF(QPointF(-stored.width() / 2, -stored.height() / 2), stored), m_frame->image);
}

}  // namespace vantrix
