#include <gtest/gtest.h>

#include <QGuiApplication>

// Every test runs on a headless GUI application: the model posts to its event loop, and images
// and the player need Qt Gui.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
