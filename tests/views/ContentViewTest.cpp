// The window's content: the empty state, the open dialog and drop, the alerts for every error,
// the loading indicator and the export progress.

#include "ViewsTestSupport.h"

#include "views/ContentView.h"
#include "views/EmptyStateView.h"
#include "views/LoadingView.h"

#include <QAction>
#include <QApplication>
#include <QDropEvent>
#include <QMimeData>
#include <QProgressBar>
#include <QUrl>

#include <atomic>
#include <future>

namespace vantrix::testing {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

QString qPath(const fs::path& path) { return QString::fromStdString(path.string()); }

// The empty state is one button that asks for a file; files dragged over light it up, and a drop
// of two opens the first.
TEST(ContentViewTest, EmptyStateAsksForAFileAndTakesADrop) {
  Editor editor;
  auto* empty = editor.window().findChild<EmptyStateView*>();
  EXPECT_TRUE(empty->isVisible());
  EXPECT_EQ(empty->accessibleName(), "Choose a video to open");
  click(empty, {30, 40});  // anywhere, far from the two lines
  EXPECT_EQ(editor.pickerAsked, 1);
  EXPECT_FALSE(editor.model().phase().isEditing()) << "a cancelled dialog opens nothing";

  QWidget& content = editor.window().content();
  QMimeData data;
  data.setUrls(
      {QUrl::fromLocalFile(qPath(fixture(clipSpec()))), QUrl::fromLocalFile(qPath(fixture(clipSpec(Container::mov))))});
  QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&content, &enter);
  EXPECT_TRUE(enter.isAccepted());
  EXPECT_TRUE(empty->isDropHighlighted());
  QDropEvent drop({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&content, &drop);
  EXPECT_FALSE(empty->isDropHighlighted());
  ASSERT_TRUE(waitUntil([&] { return editor.model().phase().isEditing(); }));
  EXPECT_EQ(editor.model().phase().video->path, fixture(clipSpec()));
  EXPECT_FALSE(empty->isVisible());
}

// Each error shows its own title over its message, once; dismissing the alert clears it.
TEST(ContentViewTest, EachErrorShowsItsTitleAndMessage) {
  for (const auto& [error, title] : std::vector<std::pair<AppError, QString>>{
           {AppError::unsupportedFile(), "Can't open this video"},
           {AppError::fileMoved(), "Can't find this file"},
           {AppError::compositionFailed(), "Can't prepare this video"},
           {AppError::diskFull(), "Not enough disk space"},
           {AppError::exportFailed(MediaError::posix(EIO, "write")), "Export didn't finish"}}) {
    SCOPED_TRACE(title.toStdString());
    AppServices services = realServices();
    services.loadVideo = [&](auto&&...) -> std::expected<LoadedVideo, AppError> { return std::unexpected(error); };
    Editor editor(services);
    editor.window().openFile(qPath(fixture(clipSpec())));
    ASSERT_TRUE(waitUntil([&] { return !editor.alerts.empty(); }));
    runEventsFor(10);
    ASSERT_EQ(editor.alerts.size(), 1u);
    EXPECT_EQ(editor.alerts[0].first, title);
    EXPECT_EQ(editor.alerts[0].second, QString::fromStdString(std::string(error.description())));
    editor.dismissAlert();
    EXPECT_FALSE(editor.model().activeError());
  }
}

// A slow open shows the loading indicator, not at once. While exporting: the progress bar and
// Cancel, Export disabled; a cancelled export ends quietly, a finished one is shown in the file
// browser.
TEST(ContentViewTest, LoadingAndExportProgress) {
  std::atomic<bool> halfway = false;
  std::promise<void> loaded, exported;
  AppServices services = realServices();
  services.loadVideo = [go = loaded.get_future().share()](const fs::path& path, std::stop_token stop) {
    go.wait_for(20s);
    return LoadedVideo::load(path, stop);
  };
  services.exportComposition = [&halfway, go = exported.get_future().share()](
                                   std::shared_ptr<const Composition>, const fs::path&,
                                   const Exporter::ProgressCallback& progress,
                                   std::stop_token stop) -> std::expected<Exporter::Outcome, AppError> {
    progress(0.5);
    halfway = true;
    go.wait_for(20s);
    return stop.stop_requested() ? Exporter::Outcome::cancelled : Exporter::Outcome::finished;
  };
  Editor editor(services);
  auto* loading = editor.window().findChild<LoadingView*>();
  editor.window().openFile(qPath(fixture(clipSpec())));
  EXPECT_TRUE(loading->isVisible());
  EXPECT_FALSE(loading->isIndicatorVisible()) << "not before the open has taken a while";
  EXPECT_TRUE(waitUntil([&] { return loading->isIndicatorVisible(); }, 3000));
  loaded.set_value();
  editor.openAndWait();
  EXPECT_FALSE(loading->isVisible());

  auto* progress = editor.window().findChild<QProgressBar*>();
  ContentView& content = editor.window().content();
  QTemporaryDir dir;
  editor.saveAnswer = dir.filePath("out.mp4");
  content.exportAction()->trigger();
  ASSERT_TRUE(waitUntil([&] { return halfway && progress->value() == 500; }));
  EXPECT_TRUE(progress->isVisible());
  EXPECT_TRUE(content.cancelExportAction()->isVisible());
  EXPECT_FALSE(content.exportAction()->isEnabled()) << "one export at a time";

  content.cancelExportAction()->trigger();
  exported.set_value();
  ASSERT_TRUE(waitUntil([&] { return !editor.model().isExporting(); }));
  EXPECT_FALSE(progress->isVisible());
  EXPECT_FALSE(content.cancelExportAction()->isVisible());
  EXPECT_TRUE(editor.alerts.empty());
  EXPECT_TRUE(editor.revealed.empty());

  ASSERT_TRUE(content.exportAction()->isEnabled());
  content.exportAction()->trigger();
  ASSERT_TRUE(waitUntil([&] { return !editor.revealed.empty(); }));
  EXPECT_EQ(editor.revealed, std::vector{dir.filePath("out.mp4")});
}

}  // namespace
}  // namespace vantrix::testing
