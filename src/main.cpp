// The vantrix executable: `vantrix [FILE]` opens one editor window, with FILE in it if given.

#include "app/AppModel.h"
#include "persistence/SessionStore.h"
#include "views/MainWindow.h"
#include "views/Motion.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFileInfo>
#include <QPalette>
#include <QStyle>
#include <QStyleFactory>

#include <cstdio>
#include <memory>

namespace vantrix {
namespace {

// The Fusion style in a light or a dark palette, for VANTRIX_COLOR_SCHEME=light|dark; anything
// else leaves the desktop's own style and palette.
void applyColourScheme(QApplication& app) {
  const QByteArray scheme = qgetenv("VANTRIX_COLOR_SCHEME");
  if (scheme != "dark" && scheme != "light") return;
  app.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
  if (scheme == "light") {
    app.setPalette(app.style()->standardPalette());
    return;
  }
  QPalette dark;
  const QColor window(36, 36, 38), base(28, 28, 30), text(235, 235, 240), disabled(120, 120, 125);
  dark.setColor(QPalette::Window, window);
  dark.setColor(QPalette::WindowText, text);
  dark.setColor(QPalette::Base, base);
  dark.setColor(QPalette::AlternateBase, window);
  dark.setColor(QPalette::Text, text);
  dark.setColor(QPalette::Button, QColor(52, 52, 56));
  dark.setColor(QPalette::ButtonText, text);
  dark.setColor(QPalette::ToolTipBase, base);
  dark.setColor(QPalette::ToolTipText, text);
  dark.setColor(QPalette::PlaceholderText, disabled);
  dark.setColor(QPalette::Highlight, QColor(10, 132, 255));
  dark.setColor(QPalette::HighlightedText, Qt::white);
  dark.setColor(QPalette::Light, QColor(70, 70, 74));
  dark.setColor(QPalette::Midlight, QColor(60, 60, 64));
  dark.setColor(QPalette::Mid, QColor(44, 44, 46));
  dark.setColor(QPalette::Dark, QColor(20, 20, 22));
  dark.setColor(QPalette::Shadow, Qt::black);
  for (auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
    dark.setColor(QPalette::Disabled, role, disabled);
  app.setPalette(dark);
}

// Qt's platform plugins abort with several lines when there is no display; say it in one.
bool hasDisplay() {
  return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ||
         !qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM");
}

// The application entry: one editor window at its default size, opening the file named on the
// command line, if any.
class VantrixApp {
 public:
  int run(int argc, char** argv) {
    if (!hasDisplay()) {
      std::fprintf(stderr,
                   "vantrix: no display found; run it on a desktop, or headless with: xvfb-run -a vantrix FILE\n");
      return 1;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Vantrix"));
    QApplication::setApplicationVersion(QStringLiteral(VANTRIX_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("vantrix"));
    applyColourScheme(app);
    Motion::setReduceMotion(Motion::readDesktopSetting());

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Speed up chosen stretches of a video and export it."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("A .mov, .mp4 or .m4v video to open."),
                                 QStringLiteral("[file]"));
    parser.process(app);

    MainWindow window(std::make_unique<AppModel>(SessionStore()));
    window.show();
    if (const QStringList files = parser.positionalArguments(); !files.isEmpty())
      window.openFile(QFileInfo(files.constFirst()).absoluteFilePath());
    return app.exec();
  }
};

}  // namespace
}  // namespace vantrix

int main(int argc, char** argv) { return vantrix::VantrixApp().run(argc, argv); }
