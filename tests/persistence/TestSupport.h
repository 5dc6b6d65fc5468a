#pragma once

// Helpers for the persistence tests: a private XDG_DATA_HOME, small files, modification times,
// and readable values in GoogleTest messages.

#include "model/SpeedTimeline.h"
#include "persistence/Session.h"

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <cstdint>
#include <ostream>

namespace vantrix::testing {

// Points XDG_DATA_HOME at <fresh temporary folder>/data while alive, so that SessionStore's
// default folder is sessionFolder(); restores the previous value afterwards.
class ScopedDataHome {
 public:
  ScopedDataHome();
  ~ScopedDataHome();
  ScopedDataHome(const ScopedDataHome&) = delete;
  ScopedDataHome& operator=(const ScopedDataHome&) = delete;

  QString root() const { return m_dir.path(); }  // scratch space for videos and links
  QString dataHome() const { return root() + "/data"; }
  QString sessionFolder() const { return dataHome() + "/Vantrix"; }

 private:
  QTemporaryDir m_dir;
  QByteArray m_previous;
  bool m_hadPrevious;
};

// The moment given to test videos: 2024-11-21 00:00:00.25 UTC.
inline constexpr std::int64_t kVideoUnixSeconds = 1732147200;
inline constexpr long kVideoNanoseconds = 250000000;

void writeFile(const QString& path, const QByteArray& bytes);
QByteArray readFile(const QString& path);  // empty when unreadable
// Sets the modification time of the item itself (a symbolic link is not followed).
void setModificationTime(const QString& path, std::int64_t unixSeconds, long nanoseconds);
QStringList entries(const QString& folder);  // every name in the folder, hidden ones too, sorted
// A video of `size` bytes, modified at the moment above.
void writeVideo(const QString& path, int size = 1000);
// What the app model saves for this video now: its bookmark, its fingerprint, a 10 s timeline
// with x4 over 1..2 s.
Session sessionFor(const QString& videoPath);

}  // namespace vantrix::testing

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }
inline void PrintTo(const QStringList& l, std::ostream* os) {
  *os << '{';
  for (const QString& s : l) *os << " \"" << s.toStdString() << '"';
  *os << " }";
}

namespace vantrix {
inline void PrintTo(RationalTime t, std::ostream* os) { *os << t.toString(); }
inline void PrintTo(SpeedTimelineError e, std::ostream* os) { *os << toString(e); }
}  // namespace vantrix
