// The window's menus and keys: what each command does and when it is enabled.

#include "ViewsTestSupport.h"

#include "views/ContentView.h"
#include "views/TimelineView.h"

#include <QAbstractButton>
#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QTest>

namespace vantrix::testing {
namespace {

RationalTime ms(std::int64_t v) { return {v, 1000}; }

void key(MainWindow& window, int k, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
  QTest::keyClick(&window, static_cast<Qt::Key>(k), modifiers);
}

QStringList menuTitles(MainWindow& window, const QString& menu) {
  QStringList titles;
  for (QAction* entry : window.menuBar()->actions())
    if (entry->text().remove(QLatin1Char('&')) == menu)
      for (QAction* item : entry->menu()->actions())
        if (!item->isSeparator()) titles << item->text();
  return titles;
}

TEST(WindowCommandsTest, OpensAtItsDefaultSizeAndResizesFreely) {
  Editor editor;
  EXPECT_EQ(editor.window().size(), QSize(960, 640));
  EXPECT_LT(editor.window().minimumSizeHint().width(), 960);
  EXPECT_EQ(editor.window().maximumSize(), QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX));
  EXPECT_EQ(menuTitles(editor.window(), "File"), (QStringList{"Open...", "Quit"}));
  EXPECT_EQ(menuTitles(editor.window(), "Edit"), (QStringList{"Undo", "Redo", "Delete", "Cancel Draft"}));
  EXPECT_EQ(menuTitles(editor.window(), "Playback"), (QStringList{"Play/Pause"}));
}

TEST(WindowCommandsTest, EveryCommandIsDisabledWithoutAVideo) {
  Editor editor;
  for (QAction* action : {editor.window().playPauseAction(), editor.window().deleteAction(),
                          editor.window().cancelDraftAction(), editor.window().undoAction(),
                          editor.window().content().markInAction(), editor.window().content().exportAction()})
    EXPECT_FALSE(action->isEnabled()) << action->text().toStdString();
  key(editor.window(), Qt::Key_Space);
  EXPECT_FALSE(editor.model().phase().isEditing());
}

TEST(WindowCommandsTest, SpacePlaysAndPausesOnceAVideoIsOpen) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  EXPECT_TRUE(editor.window().playPauseAction()->isEnabled());
  Player* player = editor.model().player();
  ASSERT_EQ(player->timeControlStatus(), Player::TimeControlStatus::paused);
  key(editor.window(), Qt::Key_Space);
  EXPECT_NE(player->timeControlStatus(), Player::TimeControlStatus::paused);
  key(editor.window(), Qt::Key_Space);
  EXPECT_EQ(player->timeControlStatus(), Player::TimeControlStatus::paused);
}

TEST(WindowCommandsTest, DeleteKeyRemovesTheSelectedSegmentAndNamesTheUndo) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  AppModel& model = editor.model();
  model.addSegment(ms(500), ms(1500), Speed::x8);
  EXPECT_FALSE(editor.window().deleteAction()->isEnabled()) << "nothing selected";
  key(editor.window(), Qt::Key_Delete);
  EXPECT_EQ(model.timeline()->segments().size(), 1u);

  model.select(model.timeline()->segments().front().id);
  EXPECT_TRUE(editor.window().deleteAction()->isEnabled());
  key(editor.window(), Qt::Key_Delete);
  EXPECT_TRUE(model.timeline()->segments().empty());
  EXPECT_FALSE(editor.window().deleteAction()->isEnabled());
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Delete Segment");

  key(editor.window(), Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(model.timeline()->segments().size(), 1u);
  EXPECT_EQ(editor.window().redoAction()->text(), "Redo Delete Segment");
}

TEST(WindowCommandsTest, EscapeCancelsTheDraftOnlyWhileMarksAreSet) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  EXPECT_FALSE(editor.window().cancelDraftAction()->isEnabled());
  editor.model().seek(ms(700));
  key(editor.window(), Qt::Key_I);  // Mark In
  ASSERT_TRUE(editor.model().pendingRegion());
  EXPECT_EQ(editor.model().pendingRegion()->inPoint, ms(700));
  EXPECT_TRUE(editor.window().cancelDraftAction()->isEnabled());
  key(editor.window(), Qt::Key_Escape);
  EXPECT_FALSE(editor.model().pendingRegion());
  EXPECT_FALSE(editor.window().cancelDraftAction()->isEnabled());
}

TEST(WindowCommandsTest, MarksFromTheToolbarMakeARegionTheStripConfirms) {
  Editor editor;
  editor.openAndWait(fixture(clipSpec()));
  editor.model().seek(ms(2000));
  editor.window().content().markOutAction()->trigger();
  editor.model().seek(ms(1000));
  editor.window().content().markInAction()->trigger();
  QAbstractButton* confirm = nullptr;
  for (auto* b : editor.strip().findChildren<QAbstractButton*>())
    if (b->accessibleName() == "Add region at 4x" && b->isVisible()) confirm = b;
  ASSERT_NE(confirm, nullptr);
  click(confirm, {4, 4});
  ASSERT_EQ(editor.model().timeline()->segments().size(), 1u);
  EXPECT_EQ(editor.model().timeline()->segments().front().start, ms(1000));
  EXPECT_EQ(editor.model().timeline()->segments().front().end, ms(2000));
  EXPECT_EQ(editor.window().undoAction()->text(), "Undo Add Segment");
  EXPECT_TRUE(editor.window().undoAction()->isEnabled());
}

TEST(WindowCommandsTest, OpenShortcutAsksForAFileOnce) {
  Editor editor;
  key(editor.window(), Qt::Key_O, Qt::ControlModifier);
  EXPECT_EQ(editor.picker.asked, 1);
  EXPECT_FALSE(editor.model().phase().isEditing()) << "a cancelled dialog opens nothing";
}

}  // namespace
}  // namespace vantrix::testing
