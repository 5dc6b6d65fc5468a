#include "app/AppServices.h"

#include "media/CompositionBuilder.h"
#include "persistence/Bookmark.h"

#include <QTimer>

namespace vantrix {
namespace {

// A single-shot timer owned by the call: stopping or destroying it calls the function off.
class TimerCall final : public DelayedCall {
 public:
  TimerCall(std::chrono::milliseconds delay, std::function<void()> fn) {
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&m_timer, &QTimer::timeout, &m_timer, std::move(fn));
    m_timer.start(delay);
  }
  void cancel() override { m_timer.stop(); }

 private:
  QTimer m_timer;
};

}  // namespace

AppServices AppServices::standard() {
  AppServices s;
  s.loadVideo = [](const std::filesystem::path& path, std::stop_token stop) { return LoadedVideo::load(path, stop); };
  s.buildComposition = [](const SpeedTimeline& timeline, const std::shared_ptr<const MediaAsset>& asset) {
    return CompositionBuilder::build(timeline, asset);
  };
  s.exportComposition = &Exporter::exportComposition;
  s.generateThumbnails = [](const std::shared_ptr<const MediaAsset>& asset, std::span<const RationalTime> times,
                            double height, double scale, std::stop_token stop, const ThumbnailGenerator::Sink& sink) {
    ThumbnailGenerator(asset).generate(times, height, scale, stop, sink);
  };
  // Our bookmark is the path itself, so making one cannot fail; one that does not resolve at once
  // (the file vanished since it was loaded) counts as none, as a failed bookmark creation would.
  s.makeBookmark = [](const QString& path) -> std::optional<std::vector<std::uint8_t>> {
    auto bookmark = vantrix::makeBookmark(path);
    if (!resolveBookmark(bookmark)) return std::nullopt;
    return bookmark;
  };
  s.startDelay = [](std::chrono::milliseconds delay, std::function<void()> fn) -> std::unique_ptr<DelayedCall> {
    return std::make_unique<TimerCall>(delay, std::move(fn));
  };
  s.playerOptions = [] { return Player::Options{}; };
  return s;
}

}  // namespace vantrix
