#pragma once

#include <QWidget>

#include <memory>

class QAction;
class QProgressBar;
class QStackedWidget;
class QToolBar;

namespace vantrix {

class AlertPresenter;
class AppModel;
class EditedLengthView;
class EmptyStateView;
class FileRevealer;
class LoadingView;
class PlayerView;
class SaveDialog;
class SpeedChipsView;
class TimelineView;
class VideoPicker;

// The window's content. A toolbar ("Mark In", "Mark Out", "Export", and while exporting a
// progress bar with "Cancel") over one of three pages that follow the model's phase: the empty
// state, the loading indicator, or the editor (the player above the strip with its length and
// speed chips). It also owns the window-level plumbing: the open dialog, dropping a file on the
// window (the first one dropped opens), the alert for the model's error (dismissing it clears the
// error) and the save dialog and file reveal the export uses.
//
// Dialogs come through ContentServices; null entries get the desktop's own (message boxes, file
// dialogs, the D-Bus file manager). Tests pass recorders instead, so no modal loop runs. GUI
// thread; the model and the services outlive the view.
// The dialogs a window uses (not owned); null entries get the desktop's own.
struct ContentServices {
  AlertPresenter* alerts = nullptr;
  VideoPicker* picker = nullptr;
  SaveDialog* saveDialog = nullptr;
  FileRevealer* revealer = nullptr;
};

class ContentView final : public QWidget {
  Q_OBJECT

 public:
  using Services = ContentServices;

  explicit ContentView(AppModel& model, Services services = {}, QWidget* parent = nullptr);
  ~ContentView() override;

  AppModel& model() const { return m_model; }
  // Shows the open dialog and opens the chosen file; a cancelled dialog changes nothing.
  void chooseVideo();
  void openFile(const QString& path);

  QAction* markInAction() const { return m_markIn; }
  QAction* markOutAction() const { return m_markOut; }
  QAction* exportAction() const { return m_export; }
  QAction* cancelExportAction() const { return m_cancel; }

  QSize sizeHint() const override { return {960, 640}; }

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dragLeaveEvent(QDragLeaveEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  QToolBar* makeToolbar();
  QWidget* makeEditor();
  void syncPage();
  void syncCommands();
  void syncExport();
  void syncError();

  AppModel& m_model;
  std::unique_ptr<AlertPresenter> m_ownAlerts;
  std::unique_ptr<VideoPicker> m_ownPicker;
  std::unique_ptr<SaveDialog> m_ownSaveDialog;
  std::unique_ptr<FileRevealer> m_ownRevealer;
  AlertPresenter* m_alerts;
  VideoPicker* m_picker;

  QAction* m_markIn = nullptr;
  QAction* m_markOut = nullptr;
  QAction* m_export = nullptr;
  QAction* m_cancel = nullptr;
  QAction* m_progressItem = nullptr;
  QProgressBar* m_progress = nullptr;

  QStackedWidget* m_pages = nullptr;
  EmptyStateView* m_empty = nullptr;
  LoadingView* m_loading = nullptr;
  QWidget* m_editor = nullptr;
  PlayerView* m_player = nullptr;
  TimelineView* m_timeline = nullptr;
  EditedLengthView* m_length = nullptr;
  SpeedChipsView* m_chips = nullptr;
};

}  // namespace vantrix
