#include "LogCapture.h"

#include <atomic>
#include <cstdlib>

namespace vantrix::testing {
namespace {
std::atomic<LogCapture*> g_active{nullptr};
}

LogCapture::LogCapture() {
  LogCapture* expected = nullptr;
  if (!g_active.compare_exchange_strong(expected, this)) std::abort();  // nested captures are a test bug
  m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture() {
  qInstallMessageHandler(m_previous);
  g_active.store(nullptr);
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext& context, const QString& message) {
  LogCapture* self = g_active.load();
  if (!self) return;
  std::lock_guard lock(self->m_mutex);
  self->m_lines.push_back({QString::fromUtf8(context.category ? context.category : ""), type, message});
}

std::vector<LogCapture::Line> LogCapture::lines() const {
  std::lock_guard lock(m_mutex);
  return m_lines;
}

QStringList LogCapture::messages(const QString& category) const {
  std::lock_guard lock(m_mutex);
  QStringList out;
  for (const Line& l : m_lines)
    if (l.category == category) out << l.message;
  return out;
}

void LogCapture::clear() {
  std::lock_guard lock(m_mutex);
  m_lines.clear();
}

}  // namespace vantrix::testing
