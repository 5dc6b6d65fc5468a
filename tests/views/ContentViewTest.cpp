// The window's content: the empty state, the open dialog and drop, the alerts for every error,
// the loading indicator and the export progress.

#include "ViewsTestSupport.h"

#include "views/ContentView.h"
#include "views/EmptyStateView.h"
#include "views/LoadingView.h"

#include <QAction>
#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QMimeData>
#include <QProgressBar>
#include <QUrl>

#include <condition_variable>
#include <mutex>

namespace vantrix::testing {
namespace {

namespace fs = std::filesystem;

QString qPath(const fs::path& path) { return QString::fromStdString(path.string()); }

fs::path pathOf(const AppModel& model) { return model.phase().video->path; }

// Blocks a worker until the test lets it go (bounded, so a failing test still ends).
class Gate {
 public:
  void open() {
    {
      std::lock_guard lock(m_mutex);
      m_open = true;
    }
    m_changed.notify_all();
  }
  void wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_open; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_open = false;
};

void dropFiles(QWidget* target, const QList<QUrl>& urls) {
  QMimeData data;
  data.setUrls(urls);
  const QPoint point = target->rect().center();
  QDragEnterEvent enter(point, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &enter);
  QDropEvent drop(point, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(target, &drop);
}

TEST(ContentViewTest, EmptyStateIsOneButtonThatAsksForAFileOnce) {
  Editor editor;
  auto* empty = editor.window().findChild<EmptyStateView*>();
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(empty->isVisible());
  EXPECT_EQ(empty->accessibleName(), "Choose a video to open");

  editor.picker.answer = qPath(fixture(clipSpec()));
  click(empty, {30, 40});  // anywhere, far from the two lines
  EXPECT_EQ(editor.picker.asked, 1);
  ASSERT_TRUE(waitUntil([&] { return editor.model().phase().isEditing(); }));
  EXPECT_EQ(pathOf(editor.model()), fixture(clipSpec()));
  EXPECT_FALSE(empty->isVisible());
}

TEST(ContentViewTest, DroppingTwoFilesOpensTheFirst) {
  Editor editor;
  FixtureSpec second = clipSpec();
  second.container = Container::mov;
  const fs::path first = fixture(clipSpec());
  dropFiles(&editor.window().content(),
            {QUrl::fromLocalFile(qPath(first)), QUrl::fromLocalFile(qPath(fixture(second)))});
  ASSERT_TRUE(waitUntil([&] { return editor.model().phase().isEditing(); }));
  EXPECT_EQ(pathOf(editor.model()), first);
}

TEST(ContentViewTest, TheEmptyStateLightsUpWhileAFileIsDraggedOver) {
  Editor editor;
  auto* empty = editor.window().findChild<EmptyStateView*>();
  QMimeData data;
  data.setUrls({QUrl::fromLocalFile("/tmp/clip.mov")});
  QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
  QApplication::sendEvent(&editor.window().content(), &enter);
  EXPECT_TRUE(enter.isAccepted());
  EXPECT_TRUE(empty->isDropHighlighted());
  QDragLeaveEvent leave;
  QApplication::sendEvent(&editor.window().content(), &leave);
  EXPECT_FALSE(empty->isDropHighlighted());
}

// Every error the model can raise, raised the way a user would meet it, shows its own title over
// its own message; dismissing the alert clears the error.
TEST(ContentViewTest, EachErrorShowsItsTitleAndMessage) {
  QTemporaryDir dir;
  const QString text = dir.filePath("notes.txt");
  QFile(text).open(QIODevice::WriteOnly);
  const QString clip = qPath(fixture(clipSpec()));

  struct Case {
    const char* name;
    std::function<void(AppServices&)> rig;
    QString open;
    bool exports;
    QString title;
    QString message;
  };
  const auto exportFails = [](AppError error) {
    return [error](AppServices& s) {
      s.exportComposition = [error](auto&&...) -> std::expected<Exporter::Outcome, AppError> {
        return std::unexpected(error);
      };
    };
  };
  const std::vector<Case> cases = {
      {"unsupported",
       {},
       text,
       false,
       "Can't open this video",
       "This file's format isn't supported. Vantrix opens .mov, .mp4, and .m4v."},
      {"moved",
       {},
       dir.filePath("gone.mp4"),
       false,
       "Can't find this file",
       "Vantrix can't find this file. It may have been moved or deleted. Open it again from its current location."},
      {"composition",
       [](AppServices& s) {
         s.loadVideo = [](auto&&...) -> std::expected<LoadedVideo, AppError> {
           return std::unexpected(AppError::compositionFailed());
         };
       },
       clip, false, "Can't prepare this video", "Vantrix couldn't prepare this video. Try opening it again."},
      {"disk full", exportFails(AppError::diskFull()), clip, true, "Not enough disk space",
       "There isn't enough disk space to export. Free up space and try again."},
      {"export", exportFails(AppError::exportFailed(MediaError::posix(EIO, "write"))), clip, true,
       "Export didn't finish", "The export didn't finish. Try exporting again."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    AppServices services = realServices();
    if (c.rig) c.rig(services);
    Editor editor(services);
    if (c.exports) {
      editor.openAndWait(c.open.toStdString());
      editor.saveDialog.answer = dir.filePath("out.mp4");
      editor.window().content().exportAction()->trigger();
    } else {
      editor.window().openFile(c.open);
    }
    ASSERT_TRUE(waitUntil([&] { return !editor.alerts.shown.empty(); }));
    EXPECT_EQ(editor.alerts.shown.back().title, c.title);
    EXPECT_EQ(editor.alerts.shown.back().message, c.message);
    EXPECT_EQ(editor.alerts.shown.size(), 1u);
    editor.alerts.dismiss();
    EXPECT_FALSE(editor.model().activeError());
  }
}

TEST(ContentViewTest, ExportShowsProgressWithCancelAndEndsQuietlyWhenCancelled) {
  Gate reachedHalf, finish;
  AppServices services = realServices();
  services.exportComposition = [&](std::shared_ptr<const Composition>, const fs::path&,
                                   const Exporter::ProgressCallback& progress,
                                   std::stop_token stop) -> std::expected<Exporter::Outcome, AppError> {
    progress(0.5);
    reachedHalf.open();
    finish.wait();
    return stop.stop_requested() ? Exporter::Outcome::cancelled : Exporter::Outcome::finished;
  };
  Editor editor(services);
  editor.openAndWait(fixture(clipSpec()));
  auto* progress = editor.window().findChild<QProgressBar*>();
  ContentView& content = editor.window().content();
  EXPECT_FALSE(progress->isVisible());
  EXPECT_FALSE(content.cancelExportAction()->isVisible());

  QTemporaryDir dir;
  editor.saveDialog.answer = dir.filePath("out.mp4");
  content.exportAction()->trigger();
  reachedHalf.wait();
  ASSERT_TRUE(waitUntil([&] { return progress->value() == 500; }));
  EXPECT_TRUE(progress->isVisible());
  EXPECT_TRUE(content.cancelExportAction()->isVisible());
  EXPECT_FALSE(content.exportAction()->isEnabled()) << "one export at a time";

  content.cancelExportAction()->trigger();
  finish.open();
  ASSERT_TRUE(waitUntil([&] { return !editor.model().isExporting(); }));
  EXPECT_FALSE(progress->isVisible());
  EXPECT_FALSE(content.cancelExportAction()->isVisible());
  EXPECT_TRUE(content.exportAction()->isEnabled());
  EXPECT_TRUE(editor.alerts.shown.empty());
  EXPECT_TRUE(editor.revealer.revealed.empty());
}

TEST(ContentViewTest, FinishedExportIsRevealed) {
  AppServices services = realServices();
  services.exportComposition = [](auto&&...) -> std::expected<Exporter::Outcome, AppError> {
    return Exporter::Outcome::finished;
  };
  Editor editor(services);
  editor.openAndWait(fixture(clipSpec()));
  QTemporaryDir dir;
  editor.saveDialog.answer = dir.filePath("out.mp4");
  editor.window().content().exportAction()->trigger();
  ASSERT_TRUE(waitUntil([&] { return !editor.revealer.revealed.empty(); }));
  EXPECT_EQ(editor.revealer.revealed.front(), dir.filePath("out.mp4"));
}

TEST(ContentViewTest, SlowOpenShowsTheLoadingIndicator) {
  Gate loaded;
  AppServices services = realServices();
  services.loadVideo = [&loaded](const fs::path& path, std::stop_token stop) {
    loaded.wait();
    return LoadedVideo::load(path, stop);
  };
  Editor editor(services);
  auto* loading = editor.window().findChild<LoadingView*>();
  editor.window().openFile(qPath(fixture(clipSpec())));
  EXPECT_TRUE(loading->isVisible());
  EXPECT_FALSE(loading->isIndicatorVisible()) << "not before the open has taken a while";
  EXPECT_TRUE(waitUntil([&] { return loading->isIndicatorVisible(); }, 3000));
  loaded.open();
  ASSERT_TRUE(waitUntil([&] { return editor.model().phase().isEditing(); }));
  EXPECT_FALSE(loading->isVisible());
}

}  // namespace
}  // namespace vantrix::testing
