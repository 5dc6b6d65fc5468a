#include "media/Player.h"

#include "media/AudioRing.h"
#include "media/CompositionReader.h"
#include "media/PlayerWorker.h"
#include "media/TimeMath.h"

#include <algorithm>
#include <chrono>
#include <vector>

namespace vantrix {
namespace {

// Half a second of sound between the decode thread and the device.
constexpr int kRingFrames = CompositionReader::kSampleRate / 2;
constexpr int kChannels = 2;

}  // namespace

Player::Player(std::shared_ptr<const Composition> item, Options options, QObject* parent)
    : QObject(parent),
      m_clock(options.clock ? std::move(options.clock) : std::make_shared<WallClock>()),
      m_playhead(std::make_shared<Playhead>(m_clock)),
      m_audio(options.audio ? std::move(options.audio) : makeDefaultAudioOutput()),
      m_item(std::move(item)) {
  if (m_audio->playsSound()) {
    m_ring = std::make_shared<AudioRing>(kChannels, kRingFrames);
    m_audio->start(std::make_shared<AudioFeed>(m_ring, m_playhead));
  }
  PlayerWorker::Reports reports{
      [this](std::uint64_t session) {
        QMetaObject::invokeMethod(this, [this, session] { onFramesReady(session); }, Qt::QueuedConnection);
      },
      [this](std::uint64_t session, const MediaError& error) {
        QMetaObject::invokeMethod(this, [this, session, error] { onFailed(session, error); }, Qt::QueuedConnection);
      }};
  m_worker = std::make_unique<PlayerWorker>(m_playhead, m_ring, std::move(reports), options.decoderThreads,
                                            options.catchUp);
  m_timer.setSingleShot(true);
  m_timer.setTimerType(Qt::PreciseTimer);
  connect(&m_timer, &QTimer::timeout, this, &Player::advance);
  connect(m_clock.get(), &PlayerClock::changed, this, &Player::advance);
  startSession(RationalTime::zero());
}

Player::Player(std::shared_ptr<const Composition> item, QObject* parent) : Player(std::move(item), Options{}, parent) {}

Player::~Player() {
  m_audio->stop();
  m_worker.reset();  // joins the decode thread; its queued reports die with this object
}

void Player::replaceCurrentItem(std::shared_ptr<const Composition> item) {
  m_item = std::move(item);
  m_error.reset();
  m_frame.reset();
  if (m_output != nullptr) m_output->clear();
  startSession(RationalTime::zero());
}

void Player::startSession(RationalTime at) {
  ++m_session;
  m_timer.stop();
  if (m_seek) finishSeek(false);
  m_playhead->park(at);
  if (m_ring) m_ring->reset(m_session);
  m_settling = true;
  m_worker->start(m_session, m_item, at);
  if (m_wantsToPlay) setStatus(TimeControlStatus::waitingToPlay);
}

void Player::play() {
  m_wantsToPlay = true;
  if (m_status == TimeControlStatus::playing) return;
  if (m_item && !m_settling && currentTime() >= m_item->duration()) startSession(RationalTime::zero());
  setStatus(TimeControlStatus::waitingToPlay);
  advance();
}

void Player::pause() {
  m_wantsToPlay = false;
  if (m_status == TimeControlStatus::playing) {
    const RationalTime now = std::min(m_playhead->now(), m_item->duration());
    presentDue(now);
    m_playhead->park(now);
  }
  m_timer.stop();
  setStatus(TimeControlStatus::paused);
}

RationalTime Player::currentTime() const {
  const RationalTime now = m_playhead->now();
  return m_item ? std::clamp(now, RationalTime::zero(), m_item->duration()) : now;
}

void Player::seek(RationalTime time, RationalTime, RationalTime, Completion completion) {
  const RationalTime end = m_item ? m_item->duration() : RationalTime::zero();
  startSession(std::clamp(time, RationalTime::zero(), end));
  if (completion) m_seek = PendingSeek{m_session, std::move(completion)};
}

Player::ObserverToken Player::addPeriodicTimeObserver(RationalTime interval, TimeObserver observer) {
  const ObserverToken token = ++m_lastToken;
  m_observers[token] = Observer{interval, std::move(observer), nextMultiple(currentTime(), interval)};
  if (m_status == TimeControlStatus::playing) scheduleNext();
  return token;
}

void Player::removeTimeObserver(ObserverToken token) { m_observers.erase(token); }

void Player::setVideoOutput(VideoOutput* output) {
  m_output = output;
  if (m_output != nullptr && m_frame) m_output->present(*m_frame);
}

void Player::setVideoSize(QSize size) {
  if (size == m_size) return;
  m_size = size;
  m_worker->setFrameSize(size);
  // A still picture is decoded again at the new size; moving ones follow by themselves.
  if (m_status == TimeControlStatus::paused && !m_settling && m_frame && m_item) startSession(currentTime());
}

void Player::onFramesReady(std::uint64_t session) {
  if (session == m_session) advance();
}

void Player::onFailed(std::uint64_t session, const MediaError& error) {
  if (session != m_session) return;
  m_error = error;
  m_settling = false;
  if (m_seek) finishSeek(false);
  m_wantsToPlay = false;
  m_playhead->park(currentTime());
  m_timer.stop();
  setStatus(TimeControlStatus::paused);
  emit failed();
}

// The presentation step: runs whenever a picture arrives, the clock moves by hand or the timer
// fires for the next due picture, observer tick or the item's end.
void Player::advance() {
  if (m_settling) {
    if (auto first = m_worker->take(m_session)) {
      m_settling = false;
      show(std::move(first->frame), first->catchUp, false);
      finishSeek(true);
    } else if (m_worker->finished(m_session) || !m_item) {
      m_settling = false;
      finishSeek(m_item != nullptr && !m_error);
    } else {
      return;
    }
  }
  if (m_status == TimeControlStatus::waitingToPlay) {
    // The clock starts with the first picture on screen: waiting for more would hold it back in
    // stretches that decode slowly, where keeping up is the decode thread's job.
    if (!m_item) return;
    m_playhead->run(m_playhead->now());
    for (auto& [token, observer] : m_observers) observer.next = nextMultiple(currentTime(), observer.interval);
    setStatus(TimeControlStatus::playing);
  }
  if (m_status != TimeControlStatus::playing) return;

  const RationalTime duration = m_item->duration();
  const RationalTime now = std::min(m_playhead->now(), duration);
  presentDue(now);
  notifyObservers(now);
  if (m_status != TimeControlStatus::playing) return;  // an observer paused or seeked
  if (now >= duration) {
    m_playhead->park(duration);
    m_wantsToPlay = false;
    setStatus(TimeControlStatus::paused);
    emit playedToEnd();
    return;
  }
  scheduleNext();
}

void Player::presentDue(RationalTime now) {
  std::optional<PlayerWorker::QueuedFrame> due;
  for (auto next = m_worker->nextTime(m_session); next && *next <= now; next = m_worker->nextTime(m_session)) {
    if (due) ++m_statistics.lateFrames;  // passed over without being shown
    due = m_worker->take(m_session);
  }
  if (!due) return;
  const bool late = now - due->frame.outputTime > kLateBy;
  show(std::move(due->frame), due->catchUp, late);
}

void Player::show(PlayerFrame frame, bool catchUp, bool late) {
  ++m_statistics.framesPresented;
  if (!m_frame || m_frame->sourceTime != frame.sourceTime) ++m_statistics.distinctFrames;
  if (catchUp) ++m_statistics.catchUpFrames;
  if (late) ++m_statistics.lateFrames;
  m_frame = std::move(frame);
  if (m_output != nullptr) m_output->present(*m_frame);
}

void Player::notifyObservers(RationalTime now) {
  const std::uint64_t session = m_session;
  std::vector<ObserverToken> tokens;
  for (const auto& [token, observer] : m_observers) tokens.push_back(token);
  for (const ObserverToken token : tokens) {
    auto it = m_observers.find(token);
    if (it == m_observers.end() || now < it->second.next) continue;
    it->second.next = nextMultiple(now, it->second.interval);
    const TimeObserver callback = it->second.callback;  // the call may remove the observer
    callback(now);
    if (session != m_session || m_status != TimeControlStatus::playing) return;
  }
}

void Player::scheduleNext() {
  if (!m_clock->runs()) return;  // a hand-moved clock says when it moved
  RationalTime due = m_item->duration();
  if (auto next = m_worker->nextTime(m_session)) due = std::min(due, *next);
  for (const auto& [token, observer] : m_observers) due = std::min(due, observer.next);
  const auto wait = m_playhead->clockTimeOf(due) - m_clock->now();
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  m_timer.start(static_cast<int>(std::clamp<std::int64_t>(ms, 0, 1000)));
}

void Player::setStatus(TimeControlStatus status) {
  if (status == m_status) return;
  m_status = status;
  emit timeControlStatusChanged(status);
}

void Player::finishSeek(bool landed) {
  if (!m_seek) return;
  const PendingSeek seek = std::move(*m_seek);
  m_seek.reset();
  if (seek.session != m_session) {
    // Superseded: reported later, so that the caller of the superseding request is not re-entered.
    QMetaObject::invokeMethod(this, [completion = seek.completion] { completion(false); }, Qt::QueuedConnection);
    return;
  }
  seek.completion(landed);
}

RationalTime Player::nextMultiple(RationalTime t, RationalTime interval) {
  using namespace timemath;
  // The first k x interval strictly after t: k = floor(t / interval) + 1.
  const Wide k = floorDiv(mul(t.value(), interval.timescale()), mul(t.timescale(), interval.value())) + 1;
  return {narrow(mul(k, interval.value())), interval.timescale()};
}

}  // namespace vantrix
