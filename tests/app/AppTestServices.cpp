#include "AppTestServices.h"

#include "media/AudioOutput.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

namespace vantrix::testing {

bool waitUntil(const std::function<bool()>& done, int timeoutMs, bool runEvents) {
  QElapsedTimer clock;
  clock.start();
  while (!done()) {
    if (clock.elapsed() > timeoutMs) return false;
    if (runEvents) QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::msleep(1);
  }
  return true;
}

void runEventsFor(int milliseconds) {
  QElapsedTimer clock;
  clock.start();
  waitUntil([&] { return clock.elapsed() >= milliseconds; });
}

bool waitHoldingEvents(const std::function<bool()>& done) {
  const bool held = waitUntil(done, 10000, false);
  QThread::msleep(50);  // for what the worker posts after `done`
  return held;
}

AppServices realServices() {
  AppServices services = AppServices::standard();
  services.playerOptions = [] { return Player::Options{nullptr, std::make_unique<NullAudioOutput>()}; };
  return services;
}

}  // namespace vantrix::testing
