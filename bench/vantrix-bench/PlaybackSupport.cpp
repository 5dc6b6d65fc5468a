#include "PlaybackSupport.h"

#include <QElapsedTimer>

#include <sys/resource.h>

namespace vantrix::bench {

QCoreApplication& application() {
  static int argc = 1;
  static char name[] = "vantrix-bench";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* app = new QCoreApplication(argc, argv);
  return *app;
}

bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  application();
  QElapsedTimer timer;
  timer.start();
  while (!done()) {
    if (timer.elapsed() >= limit.count()) return false;
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 1);
  }
  return true;
}

void TimingOutput::present(const PlayerFrame& frame) {
  ++presented;
  last = frame;
  lastAt = std::chrono::steady_clock::now();
}

double peakMemoryMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
}

}  // namespace vantrix::bench
