#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <mutex>
#include <vector>

namespace vantrix::testing {

// Captures every Qt log message emitted while it is alive (from any thread), so tests can check
// log lines verbatim. Only one may be alive at a time; it restores the previous handler on exit.
class LogCapture {
 public:
  struct Line {
    QString category;
    QtMsgType type;
    QString message;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Line> lines() const;
  // The messages of one category ("vantrix.media"), in order.
  QStringList messages(const QString& category) const;
  void clear();

 private:
  static void handler(QtMsgType type, const QMessageLogContext& context, const QString& message);

  mutable std::mutex m_mutex;
  std::vector<Line> m_lines;
  QtMessageHandler m_previous = nullptr;
};

}  // namespace vantrix::testing
