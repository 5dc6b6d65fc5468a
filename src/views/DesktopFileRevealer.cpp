#include "views/DesktopFileRevealer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace vantrix {
namespace {

void openContainingFolder(const QString& path) {
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

}  // namespace

void DesktopFileRevealer::reveal(const QString& path) {
  QDBusConnection bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    openContainingFolder(path);
    return;
  }
  QDBusMessage call = QDBusMessage::createMethodCall(
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
      QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
  call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
  auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000));
  QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [watcher, path] {
    if (watcher->isError()) openContainingFolder(path);
    watcher->deleteLater();
  });
}

}  // namespace vantrix
