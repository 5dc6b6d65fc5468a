#include "views/MainWindow.h"

#include "app/AppModel.h"

#include <QAction>
#include <QApplication>
#include <QFileInfo>
#include <QMenuBar>

namespace vantrix {

MainWindow::MainWindow(std::unique_ptr<AppModel> model, ContentServices services, QWidget* parent)
    : QMainWindow(parent), m_model(std::move(model)) {
  m_model->setUndoStack(&m_undoStack);
  m_content = new ContentView(*m_model, services, this);
  setCentralWidget(m_content);
  buildMenus();
  resize(kDefaultSize);

  for (auto signal : {&AppModel::phaseChanged, &AppModel::timelineChanged, &AppModel::selectedSegmentIdChanged,
                      &AppModel::pendingRegionChanged})
    connect(m_model.get(), signal, this, &MainWindow::syncCommands);
  connect(m_model.get(), &AppModel::phaseChanged, this, &MainWindow::syncTitle);
  syncCommands();
  syncTitle();
}

MainWindow::~MainWindow() {
  // The content's views hold the model by reference: they go first.
  delete m_content;
  m_model->setUndoStack(nullptr);
}

void MainWindow::openFile(const QString& path) { m_content->openFile(path); }

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
  m_open = file->addAction(QStringLiteral("Open..."), m_content, &ContentView::chooseVideo);
  m_open->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_O));
  file->addSeparator();
  QAction* quit = file->addAction(QStringLiteral("Quit"), qApp, &QApplication::closeAllWindows);
  quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
  quit->setMenuRole(QAction::QuitRole);

  QMenu* edit = menuBar()->addMenu(QStringLiteral("&Edit"));
  m_undo = m_undoStack.createUndoAction(this, QStringLiteral("Undo"));
  m_undo->setShortcut(QKeySequence::Undo);
  m_redo = m_undoStack.createRedoAction(this, QStringLiteral("Redo"));
  m_redo->setShortcuts({QKeySequence::Redo, QKeySequence(Qt::CTRL | Qt::Key_Y)});
  edit->addAction(m_undo);
  edit->addAction(m_redo);
  edit->addSeparator();
  m_delete = edit->addAction(QStringLiteral("Delete"), this, [this] { m_model->deleteSelectedSegment(); });
  m_delete->setShortcuts({QKeySequence(Qt::Key_Delete), QKeySequence(Qt::Key_Backspace)});
  m_cancelDraft = edit->addAction(QStringLiteral("Cancel Draft"), this, [this] { m_model->cancelPendingRegion(); });
  m_cancelDraft->setShortcut(QKeySequence(Qt::Key_Escape));

  QMenu* playback = menuBar()->addMenu(QStringLiteral("&Playback"));
  m_playPause = playback->addAction(QStringLiteral("Play/Pause"), this, [this] { m_model->togglePlayPause(); });
  m_playPause->setShortcut(QKeySequence(Qt::Key_Space));

  // The toolbar's own commands are window-wide shortcuts too.
  addAction(m_content->markInAction());
  addAction(m_content->markOutAction());
  addAction(m_content->exportAction());
}

void MainWindow::syncCommands() {
  m_playPause->setEnabled(m_model->timeline().has_value());
  m_delete->setEnabled(m_model->selectedSegmentId().has_value());
  m_cancelDraft->setEnabled(m_model->pendingRegion().has_value());
}

void MainWindow::syncTitle() {
  const auto& phase = m_model->phase();
  if (phase.isEditing()) {
    setWindowFilePath(QFile::decodeName(QByteArray(phase.video->path.c_str())));
    setWindowTitle(QFileInfo(windowFilePath()).fileName() + QStringLiteral(" - Vantrix"));
  } else if (!phase.isEditing() && phase.kind == AppModel::Phase::Kind::empty) {
    setWindowTitle(QStringLiteral("Vantrix"));
  }
}

}  // namespace vantrix
