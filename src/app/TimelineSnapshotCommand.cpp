#include "app/TimelineSnapshotCommand.h"

#include "app/AppModel.h"

namespace vantrix {

TimelineSnapshotCommand::TimelineSnapshotCommand(AppModel& model, SpeedTimeline snapshot, const QString& actionName)
    : QUndoCommand(actionName), m_model(&model), m_snapshot(std::move(snapshot)) {}

void TimelineSnapshotCommand::undo() { swapWithModel(); }

void TimelineSnapshotCommand::redo() {
  if (m_applied) {
    m_applied = false;
    return;
  }
  swapWithModel();
}

void TimelineSnapshotCommand::retire() {
  m_retired = true;
  setObsolete(true);
}

void TimelineSnapshotCommand::swapWithModel() {
  if (m_retired || !m_model) {
    setObsolete(true);
    return;
  }
  if (auto replaced = m_model->restoreTimelineSnapshot(m_snapshot)) m_snapshot = std::move(*replaced);
}

}  // namespace vantrix
