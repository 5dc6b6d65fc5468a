// The export flow: destination, session save, the export task with its progress, and its end.

#include "app/AppLog.h"
#include "app/AppModel.h"
#include "app/FileRevealer.h"
#include "app/SaveDialog.h"

#include <QFile>
#include <QFileInfo>

namespace vantrix {

bool AppModel::canExport() const { return m_phase.isEditing() && m_composition && !m_isExporting; }

void AppModel::exportVideo() {
  if (!canExport() || !m_saveDialog) return;
  const std::shared_ptr<const Composition> composition = m_composition;
  const std::filesystem::path& source = m_phase.video->path;

  SaveRequest request;
  request.startFolder = QFileInfo(QFile::decodeName(QByteArray(source.c_str()))).absolutePath();
  request.suggestedName = QString::fromStdString(Exporter::suggestedOutputName(source));
  const std::optional<QString> destination = m_saveDialog->chooseDestination(request);
  // The dialog is modal: the model may have changed while it was up (a new video opened).
  if (!destination || destination->isEmpty() || !canExport() || m_composition != composition) return;

  saveSession();
  setIsExporting(true);
  setExportProgress(0.0);
  const std::uint64_t number = ++m_exportNumber;
  m_exportTask = m_tasks.start([weak = QPointer<AppModel>(this), run = m_services.exportComposition, composition,
                                destination = *destination, number](std::stop_token stop) {
    const auto progress = [&weak, number](double fraction) {
      postTo(weak, [number, fraction](AppModel& model) {
        if (model.m_isExporting && model.m_exportNumber == number) model.setExportProgress(fraction);
      });
    };
    auto result = run(composition, std::filesystem::path(QFile::encodeName(destination).toStdString()), progress, stop);
    // Stopped means cancelled, whatever the exporter made of its last steps.
    if (stop.stop_requested()) result = Exporter::Outcome::cancelled;
    postTo(weak, [number, result = std::move(result), destination](AppModel& model) mutable {
      model.endExport(number, std::move(result), destination);
    });
  });
}

void AppModel::cancelExport() { cancel(m_exportTask); }

void AppModel::endExport(std::uint64_t exportNumber, std::expected<Exporter::Outcome, AppError> result,
                         const QString& destination) {
  if (exportNumber != m_exportNumber) return;
  finishExport();
  if (!result) {
    qCCritical(lcApp, "Export failed: %s", std::string(result.error().description()).c_str());
    setActiveError(std::move(result.error()));
    return;
  }
  if (*result == Exporter::Outcome::finished && m_fileRevealer) m_fileRevealer->reveal(destination);
}

void AppModel::finishExport() {
  setIsExporting(false);
  setExportProgress(std::nullopt);
  m_exportTask.reset();
}

}  // namespace vantrix
