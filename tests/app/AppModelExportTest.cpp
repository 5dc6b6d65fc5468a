#include "AppTestSupport.h"

#include <QFile>
#include <QSignalSpy>

#include <atomic>

namespace vantrix {
namespace {

namespace fs = std::filesystem;
using namespace vantrix::testing;

class ExportTest : public AppModelTest {
 protected:
  std::unique_ptr<AppModel> openModel(AppServices services = realServices()) {
    auto model = makeModel(std::move(services));
    model->setExportInterfaces(&m_dialog, &m_revealer);
    m_clip = copyFixture(clipSpec(), "clip.mp4");
    openAndWait(*model, m_clip);
    return model;
  }
  static bool idle(const AppModel& model) { return !model.isExporting() && !model.exportProgress(); }
  // Everything in the test folder besides the clip and the session folder.
  std::vector<fs::path> leftovers() const {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(dir()))
      if (entry.path() != m_clip && entry.path().filename() != "data") found.push_back(entry.path());
    return found;
  }
  QString target(const char* name) const { return QString::fromStdString((dir() / name).string()); }

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
  ASSERT_TRUE(model->canExport());
  model->exportVideo();  // dismissed: nothing happens
  EXPECT_TRUE(idle(*model));
  EXPECT_TRUE(progress.empty());
  EXPECT_FALSE(QFile::exists(session));
  m_dialog.answer = target("out.mp4");
  model->exportVideo();

  ASSERT_EQ(m_dialog.requests.size(), 2u);
  EXPECT_EQ(m_dialog.requests[0].startFolder, QString::fromStdString(dir().string()));
  EXPECT_EQ(m_dialog.requests[0].suggestedName, QStringLiteral("clip-vantrix.mp4"));
  EXPECT_EQ(m_dialog.requests[0].nameFilter, QStringLiteral("MPEG-4 Movie (*.mp4)"));
  EXPECT_TRUE(QFile::exists(session));
  EXPECT_TRUE(model->isExporting());
  EXPECT_EQ(model->exportProgress(), 0.0);
  EXPECT_FALSE(model->canExport());

  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealer.revealed, std::vector<QString>{target("out.mp4")});
  ASSERT_FALSE(progress.empty());
  EXPECT_TRUE(std::ranges::is_sorted(progress));
  EXPECT_EQ(progress.back(), 1.0);

  // The file is the edit: 3 s with one second at 4x plays 2.25 s.
  const auto exported = LoadedVideo::load(dir() / "out.mp4");
  ASSERT_TRUE(exported);
  EXPECT_NEAR(exported->asset->duration().seconds(), 2.25, 1.0 / 30);
}

TEST_F(ExportTest, CancellingLeavesNoFileAndNoError) {
  auto model = openModel();
  m_dialog.answer = target("out.mp4");
  model->exportVideo();
  ASSERT_TRUE(model->isExporting());
  model->cancelExport();
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_TRUE(m_revealer.revealed.empty());
  EXPECT_TRUE(leftovers().empty()) << leftovers().front();
  EXPECT_TRUE(model->canExport());
}

TEST_F(ExportTest, BeforeTheFirstCompositionIsInstalledNothingHappens) {
  auto gate = std::make_shared<LoadGate>();
  AppServices services = realServices();
  services.buildComposition = [gate, real = services.buildComposition](const SpeedTimeline& t, const auto& asset) {
    gate->wait();
    return real(t, asset);
  };
  auto model = makeModel(services);
  model->setExportInterfaces(&m_dialog, &m_revealer);
  m_dialog.answer = target("out.mp4");
  model->openVideo(copyFixture(clipSpec(), "clip.mp4"));
  ASSERT_TRUE(waitUntil([&] { return model->phase().isEditing(); }));
  EXPECT_FALSE(model->canExport());
  model->exportVideo();
  EXPECT_TRUE(m_dialog.requests.empty());
  EXPECT_TRUE(idle(*model));
  gate->release();
  ASSERT_TRUE(waitUntil([&] { return model->canExport(); }));
}

// Failures the exporter reports, as the user sees and the log records them.
struct FailureCase {
  const char* name;
  AppError error;
  const char* line;
};
void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

const FailureCase kFailures[] = {
    {"DiskFull", AppError::diskFull(),
     "Export failed: There isn't enough disk space to export. Free up space and try again."},
    {"OtherFailure", AppError::exportFailed(MediaError::posix(EIO, "Writing out.mp4")),
     "Export failed: The export didn't finish. Try exporting again."},
};

class ExportFailureTest : public ExportTest, public ::testing::WithParamInterface<FailureCase> {};

// The first export fails as the case says; every later one is the real exporter.
TEST_P(ExportFailureTest, ShowsTheErrorAndASecondExportCanStartAtOnce) {
  AppServices services = realServices();
  auto calls = std::make_shared<std::atomic<int>>(0);
  services.exportComposition = [calls, error = GetParam().error, real = services.exportComposition](
                                   auto composition, const fs::path& to, const auto& progress,
                                   std::stop_token stop) -> std::expected<Exporter::Outcome, AppError> {
    if ((*calls)++ == 0) {
      progress(0.3);
      return std::unexpected(error);
    }
    return real(std::move(composition), to, progress, stop);
  };
  auto model = openModel(services);
  m_dialog.answer = target("out.mp4");
  LogCapture log;
  model->exportVideo();
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }));
  ASSERT_TRUE(model->activeError());
  EXPECT_EQ(model->activeError()->kind(), GetParam().error.kind());
  EXPECT_EQ(log.messages("vantrix.app"), QStringList{QString::fromUtf8(GetParam().line)});
  EXPECT_TRUE(m_revealer.revealed.empty());

  ASSERT_TRUE(model->canExport());
  model->dismissError();
  model->exportVideo();
  EXPECT_TRUE(model->isExporting());
  ASSERT_TRUE(waitUntil([&] { return idle(*model); }, 30000));
  EXPECT_EQ(model->activeError(), std::nullopt);
  EXPECT_EQ(m_revealer.revealed, std::vector<QString>{target("out.mp4")});
}

INSTANTIATE_TEST_SUITE_P(Export, ExportFailureTest, ::testing::ValuesIn(kFailures),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace vantrix
