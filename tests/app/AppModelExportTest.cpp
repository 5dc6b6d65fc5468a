#include "AppTestSupport.h"

#include "app/FileRevealer.h"
#include "app/SaveDialog.h"

#include <QFile>

#include <atomic>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;

struct RecordingSaveDialog final : SaveDialog {
  std::optional<QString> answer;
  std::vector<SaveRequest> requests;
  std::optional<QString> chooseDestination(const SaveRequest& request) override {
    requests.push_back(request);
    return answer;
  }
};

struct RecordingRevealer final : FileRevealer {
  std::vector<QString> revealed;
  void reveal(const QString& path) override { revealed.push_back(path); }
};

class ExportTest : public AppModelTest {
 protected:
  std::unique_ptr<AppModel> openModel(AppServices services = realServices()) {
    auto model = makeModel(std::move(services));
    model->setExportInterfaces(&m_dialog, &m_revealer);
    openAndWait(*model, m_clip = copyClip());
    return model;
  }
  static bool idle(const AppModel& model) { return !model.isExporting() && !model.exportProgress(); }
  QString out() const { return QString::fromStdString((dir() / "out.mp4").string()); }

  RecordingSaveDialog m_dialog;
  RecordingRevealer m_revealer;
  fs::path m_clip;
};

TEST_F(ExportTest, WritesTheInstalledEditSavesTheSessionAndRevealsTheFile) {
  auto model = openModel();
  model->addSegment(ms(500), ms(1500), Speed::x4);
  ASSERT_TRUE(waitUntil([&] { return model->compositionTimeline() == model->timeline(); }));
  const QString session = SessionStore().sessionFilePath(QString::fromStdString(m_clip.string()));
  ASSERT_TRUE(QFile::remove(session));
  std::vector<double> progress;
  QObject::connect(model.get(), &AppModel::exportProgressChanged, [&] {
    if (model->exportProgress()) progress.push_back(*model->exportProgress());
  });

  model->exportVideo();  // the dialog is dismissed: nothing happens
  EXPECT_TRUE(idle(*model));
  EXPECT_FALSE(QFile::exists(session));
  m_dialog.answer = out();
  model->exportVideo();
  ASSERT_EQ(m_dialog.requests.size(), 2u);
  EXPECT_EQ(m_dialog.requests[0].startFolder, QString::fromStdString(dir().string()));
  EXPECT_EQ(m_dialog.requests[0].suggestedName, QStringLiteral("clip-vantrix.mp4"));
  EXPECT_EQ(m_dialog.requests[0].nameFilter, QStringLiteral("MPEG-4 Movie (*.mp4)"));
  EXPECT_TRUE(QFile::exists(session));
  EXPECT_TRUE(model->isExporting());
  EXPECT_FALSE(model->canExport());

  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealer.revealed, std::vector<QString>{out()});
  EXPECT_EQ(progress.front(), 0.0);
  EXPECT_TRUE(std::ranges::is_sorted(progress));
  EXPECT_EQ(progress.back(), 1.0);
  // 3 s with one second at 4x plays 2.25 s.
  const auto exported = LoadedVideo::load(dir() / "out.mp4");
  ASSERT_TRUE(exported);
  EXPECT_NEAR(exported->asset->duration().seconds(), 2.25, 1.0 / 30);
}

TEST_F(ExportTest, CancellingLeavesNoFileAndNoError) {
  auto model = openModel();
  m_dialog.answer = out();
  model->exportVideo();
  ASSERT_TRUE(model->isExporting());
  model->cancelExport();
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_TRUE(m_revealer.revealed.empty());
  for (const auto& entry : fs::directory_iterator(dir()))
    EXPECT_TRUE(entry.path() == m_clip || entry.path().filename() == "data") << entry.path();
  EXPECT_TRUE(model->canExport());
}

// Until the first composition is installed, seeks go to source time and there is nothing to export.
TEST_F(ExportTest, BeforeTheFirstCompositionIsInstalledNothingIsExported) {
  auto gate = std::make_shared<LoadGate>();
  AppServices services = realServices();
  services.buildComposition = [gate, real = services.buildComposition](const SpeedTimeline& t, const auto& asset) {
    gate->wait();
    return real(t, asset);
  };
  auto model = makeModel(services);
  model->setExportInterfaces(&m_dialog, &m_revealer);
  m_dialog.answer = out();
  model->openVideo(copyClip());
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  model->seek(ms(1200));
  EXPECT_EQ(model->player()->currentTime(), ms(1200));
  EXPECT_FALSE(model->canExport());
  model->exportVideo();
  EXPECT_TRUE(m_dialog.requests.empty());
  EXPECT_TRUE(idle(*model));
  gate->release();
  ASSERT_TRUE(waitUntil([&] { return model->canExport(); }));
}

// The first export finds the disk full; the next one is the real exporter.
TEST_F(ExportTest, AFullDiskShowsItsErrorAndASecondExportStartsAtOnce) {
  AppServices services = realServices();
  auto calls = std::make_shared<std::atomic<int>>(0);
  services.exportComposition = [calls, real = services.exportComposition](
                                   auto composition, const fs::path& to, const auto& progress,
                                   std::stop_token stop) -> std::expected<Exporter::Outcome, AppError> {
    if ((*calls)++ > 0) return real(std::move(composition), to, progress, stop);
    progress(0.3);
    return std::unexpected(AppError::diskFull());
  };
  auto model = openModel(services);
  m_dialog.answer = out();
  LogCapture log;
  model->exportVideo();
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }));
  EXPECT_EQ(model->activeError(), AppError::diskFull());
  EXPECT_EQ(log.messages("vantrix.app"),
            QStringList{"Export failed: There isn't enough disk space to export. Free up space and try again."});
  EXPECT_TRUE(m_revealer.revealed.empty());

  model->dismissError();
  model->exportVideo();
  EXPECT_TRUE(model->isExporting());
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealer.revealed, std::vector<QString>{out()});
}

}  // namespace
}  // namespace vantrix
