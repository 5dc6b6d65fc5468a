#pragma once

#include <QString>
#include <QStringList>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace vantrix::testing {

// Captures every Qt log message emitted while it is alive (from any thread), so tests can check log lines verbatim.
// Only one may be alive at a time; it restores the previous handler on exit.
class LogCapture {
 public:
  struct Line {
    QString category;
    QtMsgType type;
    QString message;
  };

  LogCapture() {
    if (LogCapture* none = nullptr; !s_active.compare_exchange_strong(none, this)) std::abort();  // nested: a test bug
    m_previous = qInstallMessageHandler(&LogCapture::handler);
  }
  ~LogCapture() {
    qInstallMessageHandler(m_previous);
    s_active.store(nullptr);
  }

  std::vector<Line> lines() const {
    std::lock_guard lock(m_mutex);
    return m_lines;
  }
  // The messages of one category ("vantrix.media"), in order.
  QStringList messages(const QString& category) const {
    QStringList out;
    for (const Line& line : lines())
      if (line.category == category) out << line.message;
    return out;
  }
  void clear() {
    std::lock_guard lock(m_mutex);
    m_lines.clear();
  }

 private:
  static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (LogCapture* self = s_active.load()) {
      std::lock_guard lock(self->m_mutex);
      self->m_lines.push_back({QString::fromUtf8(context.category ? context.category : ""), type, message});
    }
  }

  static inline std::atomic<LogCapture*> s_active{nullptr};
  mutable std::mutex m_mutex;
  std::vector<Line> m_lines;
  QtMessageHandler m_previous = nullptr;
};

}  // namespace vantrix::testing
