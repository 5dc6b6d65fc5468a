#include "AppTestSupport.h"

#include <QFile>
#include <QGuiApplication>

namespace vantrix::testing {

namespace fs = std::filesystem;

void AppModelTest::SetUp() {
  ASSERT_TRUE(m_tmp.isValid());
  m_dir = m_tmp.path().toStdString();
  // The real session store finds its folder here, as it would in $XDG_DATA_HOME/Vantrix.
  qputenv("XDG_DATA_HOME", QFile::encodeName(m_tmp.filePath("data")));
}

fs::path AppModelTest::copyClip(const std::string& name) const {
  const fs::path target = m_dir / name;
  fs::copy_file(fixture({.width = 160, .height = 120, .seconds = 3, .gopFrames = 15}), target,
                fs::copy_options::overwrite_existing);
  return target;
}

std::unique_ptr<AppModel> AppModelTest::makeModel(AppServices services) {
  auto model = std::make_unique<AppModel>(SessionStore(), std::move(services));
  model->setUndoStack(&m_undo);
  return model;
}

void AppModelTest::openAndWait(AppModel& model, const fs::path& file) {
  model.openVideo(file);
  ASSERT_TRUE(waitUntil([&] { return model.phase().kind != AppModel::Phase::Kind::loading; })) << file;
  ASSERT_TRUE(model.phase().isEditing()) << file << ": "
                                         << (model.activeError() ? model.activeError()->description() : "");
  ASSERT_TRUE(waitUntil([&] { return model.composition() != nullptr; })) << file;
}

}  // namespace vantrix::testing

// Every test runs on a headless GUI application: the model posts to its event loop, and images
// and the player need Qt Gui.
int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
