#include "views/ContentView.h"

#include "app/AppModel.h"
#include "views/AlertPresenter.h"
#include "views/DesktopFileRevealer.h"
#include "views/EditedLengthView.h"
#include "views/EmptyStateView.h"
#include "views/FileDialogs.h"
#include "views/LoadingView.h"
#include "views/PlayerView.h"
#include "views/SpeedChipsView.h"
#include "views/TimelineView.h"

#include <QAction>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QHBoxLayout>
#include <QMimeData>
#include <QProgressBar>
#include <QStackedWidget>
#include <QToolBar>
#include <QUrl>
#include <QVBoxLayout>

#include <filesystem>

namespace vantrix {
namespace {

constexpr int kEditorMargin = 16;
constexpr int kEditorSpacing = 10;

// The first dropped item, when it is a file on this machine.
std::optional<QString> firstLocalFile(const QMimeData* data) {
  if (!data || !data->hasUrls() || data->urls().isEmpty()) return std::nullopt;
  const QUrl first = data->urls().constFirst();
  if (!first.isLocalFile()) return std::nullopt;
  return first.toLocalFile();
}

}  // namespace

ContentView::ContentView(AppModel& model, Services services, QWidget* parent) : QWidget(parent), m_model(model) {
  if (!services.alerts) services.alerts = (m_ownAlerts = std::make_unique<MessageBoxAlertPresenter>(this)).get();
  if (!services.picker) services.picker = (m_ownPicker = std::make_unique<FileDialogVideoPicker>(this)).get();
  if (!services.saveDialog)
    services.saveDialog = (m_ownSaveDialog = std::make_unique<FileDialogSaveDialog>(this)).get();
  if (!services.revealer) services.revealer = (m_ownRevealer = std::make_unique<DesktopFileRevealer>()).get();
  m_alerts = services.alerts;
  m_picker = services.picker;
  m_model.setExportInterfaces(services.saveDialog, services.revealer);

  setAcceptDrops(true);
  setMinimumSize(560, 420);

  m_empty = new EmptyStateView;
  connect(m_empty, &EmptyStateView::clicked, this, &ContentView::chooseVideo);
  m_loading = new LoadingView;
  m_editor = makeEditor();
  m_pages = new QStackedWidget;
  m_pages->addWidget(m_empty);
  m_pages->addWidget(m_loading);
  m_pages->addWidget(m_editor);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  layout->addWidget(makeToolbar());
  layout->addWidget(m_pages, 1);

  connect(&m_model, &AppModel::phaseChanged, this, [this] {
    syncPage();
    syncCommands();
  });
  connect(&m_model, &AppModel::showsLoadingIndicatorChanged, this, &ContentView::syncPage);
  connect(&m_model, &AppModel::timelineChanged, this, &ContentView::syncCommands);
  connect(&m_model, &AppModel::compositionChanged, this, &ContentView::syncCommands);
  connect(&m_model, &AppModel::isExportingChanged, this, [this] {
    syncExport();
    syncCommands();
  });
  connect(&m_model, &AppModel::exportProgressChanged, this, &ContentView::syncExport);
  connect(&m_model, &AppModel::activeErrorChanged, this, &ContentView::syncError);
  syncPage();
  syncCommands();
  syncExport();
  syncError();
}

ContentView::~ContentView() {
  // The model may outlive this view: it must not call into the dialogs that go with it.
  m_model.setExportInterfaces(nullptr, nullptr);
}

QToolBar* ContentView::makeToolbar() {
  auto* toolbar = new QToolBar(QStringLiteral("Editing"), this);
  toolbar->setToolButtonStyle(Qt::ToolButtonTextOnly);
  toolbar->setMovable(false);
  toolbar->setFloatable(false);

  m_markIn = toolbar->addAction(QStringLiteral("Mark In"), this, [this] { m_model.markIn(); });
  m_markIn->setShortcut(QKeySequence(Qt::Key_I));
  m_markIn->setToolTip(QStringLiteral("Mark the start of a region at the playhead (I)"));
  m_markOut = toolbar->addAction(QStringLiteral("Mark Out"), this, [this] { m_model.markOut(); });
  m_markOut->setShortcut(QKeySequence(Qt::Key_O));
  m_markOut->setToolTip(QStringLiteral("Mark the end of a region at the playhead (O)"));

  auto* spacer = new QWidget(toolbar);
  spacer->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Preferred);
  toolbar->addWidget(spacer);

  m_progress = new QProgressBar(toolbar);
  m_progress->setRange(0, 1000);
  m_progress->setTextVisible(false);
  m_progress->setFixedWidth(180);
  m_progress->setAccessibleName(QStringLiteral("Export progress"));
  m_progressItem = toolbar->addWidget(m_progress);
  m_cancel = toolbar->addAction(QStringLiteral("Cancel"), this, [this] { m_model.cancelExport(); });
  m_cancel->setToolTip(QStringLiteral("Stop the export"));
  m_export = toolbar->addAction(QStringLiteral("Export"), this, [this] { m_model.exportVideo(); });
  m_export->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_E));
  m_export->setToolTip(QStringLiteral("Export the edited video as MPEG-4 (Ctrl+E)"));
  for (QAction* action : {m_markIn, m_markOut, m_cancel, m_export})
    if (QWidget* button = toolbar->widgetForAction(action)) button->setFocusPolicy(Qt::NoFocus);
  return toolbar;
}

QWidget* ContentView::makeEditor() {
  auto* editor = new QWidget;
  m_player = new PlayerView;
  m_timeline = new TimelineView(m_model);
  m_length = new EditedLengthView(m_model, *m_timeline);
  m_chips = new SpeedChipsView(m_model);

  auto* stripRow = new QHBoxLayout;
  stripRow->setSpacing(12);
  stripRow->addWidget(m_timeline, 1);
  // Level with the strip band, below the flag's row.
  stripRow->addWidget(m_length, 0, Qt::AlignBottom);
  m_length->setFixedHeight(static_cast<int>(TimelineGeometry::kStripHeight));

  auto* layout = new QVBoxLayout(editor);
  layout->setContentsMargins(kEditorMargin, kEditorMargin, kEditorMargin, kEditorMargin);
  layout->setSpacing(kEditorSpacing);
  layout->addWidget(m_player, 1);
  layout->addLayout(stripRow);
  layout->addWidget(m_chips);
  return editor;
}

void ContentView::chooseVideo() {
  if (const std::optional<QString> path = m_picker->chooseVideo()) openFile(*path);
}

void ContentView::openFile(const QString& path) {
  m_model.openVideo(std::filesystem::path(QFile::encodeName(path).toStdString()));
}

void ContentView::syncPage() {
  switch (m_model.phase().kind) {
    case AppModel::Phase::Kind::empty:
      m_pages->setCurrentWidget(m_empty);
      break;
    case AppModel::Phase::Kind::loading:
      m_pages->setCurrentWidget(m_loading);
      break;
    case AppModel::Phase::Kind::editing:
      m_pages->setCurrentWidget(m_editor);
      break;
  }
  m_loading->setIndicatorVisible(m_model.showsLoadingIndicator());
  m_player->setPlayer(m_model.player());
}

void ContentView::syncCommands() {
  const bool editable = m_model.phase().isEditing() && m_model.timeline().has_value();
  m_markIn->setEnabled(editable);
  m_markOut->setEnabled(editable);
  m_export->setEnabled(m_model.canExport());
}

void ContentView::syncExport() {
  const bool exporting = m_model.isExporting();
  m_progressItem->setVisible(exporting);
  m_cancel->setVisible(exporting);
  m_cancel->setEnabled(exporting);
  m_progress->setValue(static_cast<int>(std::lround(m_model.exportProgress().value_or(0.0) * 1000)));
}

void ContentView::syncError() {
  const auto& error = m_model.activeError();
  if (!error) {
    m_alerts->close();
    return;
  }
  m_alerts->show(alertTitle(error->kind()),
                 QString::fromUtf8(error->description().data(), static_cast<qsizetype>(error->description().size())),
                 [this] { m_model.dismissError(); });
}

void ContentView::dragEnterEvent(QDragEnterEvent* event) {
  if (!firstLocalFile(event->mimeData())) return;
  event->acceptProposedAction();
  m_empty->setDropHighlighted(true);
}

void ContentView::dragLeaveEvent(QDragLeaveEvent*) { m_empty->setDropHighlighted(false); }

void ContentView::dropEvent(QDropEvent* event) {
  m_empty->setDropHighlighted(false);
  const std::optional<QString> path = firstLocalFile(event->mimeData());
  if (!path) return;
  event->acceptProposedAction();
  openFile(*path);
}

}  // namespace vantrix
