// The window's menus and keys: what each command does and when it is enabled.

#include "ViewsTestSupport.h"

#include "views/ContentView.h"

#include <QAction>
#include <QMenu>
#include <QMenuBar>
#include <QTest>

namespace vantrix::testing {
namespace {

// Without a video only Open and Quit act; once Ctrl+O has opened one, Space, the marks, Escape
// and Delete act, each enabled only when it can.
TEST(WindowCommandsTest, CommandsActWhenEnabled) {
  Editor editor;
  MainWindow& window = editor.window();
  AppModel& model = editor.model();
  EXPECT_EQ(window.size(), QSize(960, 640));
  EXPECT_LT(window.minimumSizeHint().width(), 960);
  EXPECT_EQ(window.maximumSize(), QSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX));
  QStringList menus;
  for (QAction* menu : window.menuBar()->actions())
    for (QAction* item : menu->menu()->actions())
      if (!item->isSeparator()) menus << menu->text().remove('&') + ": " + item->text();
  EXPECT_EQ(menus.join(", "),
            "File: Open..., File: Quit, Edit: Undo, Edit: Redo, Edit: Delete, Edit: Cancel Draft, "
            "Playback: Play/Pause");
  for (QAction* action : {window.playPauseAction(), window.deleteAction(), window.cancelDraftAction(),
                          window.undoAction(), window.content().markInAction(), window.content().exportAction()})
    EXPECT_FALSE(action->isEnabled()) << action->text().toStdString();
  editor.pickerAnswer = QString::fromStdString(fixture(clipSpec()).string());
  QTest::keyClick(&window, Qt::Key_O, Qt::ControlModifier);
  EXPECT_EQ(editor.pickerAsked, 1);
  editor.openAndWait();

  Player* player = model.player();
  EXPECT_TRUE(window.playPauseAction()->isEnabled());
  ASSERT_EQ(player->timeControlStatus(), Player::TimeControlStatus::paused);
  QTest::keyClick(&window, Qt::Key_Space);
  EXPECT_NE(player->timeControlStatus(), Player::TimeControlStatus::paused);
  QTest::keyClick(&window, Qt::Key_Space);
  EXPECT_EQ(player->timeControlStatus(), Player::TimeControlStatus::paused);

  EXPECT_FALSE(window.cancelDraftAction()->isEnabled());
  model.seek(ms(700));
  QTest::keyClick(&window, Qt::Key_I);  // Mark In
  model.seek(ms(2000));
  window.content().markOutAction()->trigger();
  EXPECT_EQ(model.pendingRegion(), (PendingRegion{ms(700), ms(2000)}));
  EXPECT_TRUE(window.cancelDraftAction()->isEnabled());
  QTest::keyClick(&window, Qt::Key_Escape);
  EXPECT_FALSE(model.pendingRegion());
  EXPECT_FALSE(window.cancelDraftAction()->isEnabled());

  model.addSegment(ms(500), ms(1500), Speed::x8);
  EXPECT_FALSE(window.deleteAction()->isEnabled()) << "nothing selected";
  QTest::keyClick(&window, Qt::Key_Delete);
  EXPECT_EQ(model.timeline()->segments().size(), 1u);
  model.select(model.timeline()->segments().front().id);
  EXPECT_TRUE(window.deleteAction()->isEnabled());
  QTest::keyClick(&window, Qt::Key_Delete);
  EXPECT_TRUE(model.timeline()->segments().empty());
  EXPECT_FALSE(window.deleteAction()->isEnabled());
  EXPECT_EQ(window.undoAction()->text(), "Undo Delete Segment");
  QTest::keyClick(&window, Qt::Key_Z, Qt::ControlModifier);
  EXPECT_EQ(model.timeline()->segments().size(), 1u);
  EXPECT_EQ(window.redoAction()->text(), "Redo Delete Segment");
}

}  // namespace
}  // namespace vantrix::testing
