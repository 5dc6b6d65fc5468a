#pragma once

#include "views/ContentView.h"

#include <QMainWindow>
#include <QUndoStack>

#include <memory>

class QAction;

namespace vantrix {

class AppModel;

// The editor window: its own model, undo stack and content, and the menus whose commands act on
// that model. File: "Open..." (Ctrl+O), "Quit" (Ctrl+Q). Edit: "Undo <action>" and
// "Redo <action>" named after the step they undo or redo, then "Delete" (Delete, enabled while a
// segment is selected) and "Cancel Draft" (Escape, enabled while region marks are set).
// Playback: "Play/Pause" (Space, enabled while the video has a timeline). Each item's enabled
// state follows the model as it changes, so a disabled item's shortcut does nothing.
//
// Opens at 960 x 640 and resizes freely above its content's minimum. GUI thread.
class MainWindow final : public QMainWindow {
  Q_OBJECT

 public:
  static constexpr QSize kDefaultSize{960, 640};

  explicit MainWindow(std::unique_ptr<AppModel> model, ContentServices services = {}, QWidget* parent = nullptr);
  ~MainWindow() override;

  AppModel& model() const { return *m_model; }
  ContentView& content() const { return *m_content; }
  QUndoStack& undoStack() { return m_undoStack; }
  void openFile(const QString& path);

  QAction* openAction() const { return m_open; }
  QAction* undoAction() const { return m_undo; }
  QAction* redoAction() const { return m_redo; }
  QAction* deleteAction() const { return m_delete; }
  QAction* cancelDraftAction() const { return m_cancelDraft; }
  QAction* playPauseAction() const { return m_playPause; }

 private:
  void buildMenus();
  void syncCommands();
  void syncTitle();

  // Declared before the model: the model's undo steps live on it and must go after the model.
  QUndoStack m_undoStack;
  std::unique_ptr<AppModel> m_model;
  ContentView* m_content;
  QAction* m_open = nullptr;
  QAction* m_undo = nullptr;
  QAction* m_redo = nullptr;
  QAction* m_delete = nullptr;
  QAction* m_cancelDraft = nullptr;
  QAction* m_playPause = nullptr;
};

}  // namespace vantrix
