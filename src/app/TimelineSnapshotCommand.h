#pragma once

#include "model/SpeedTimeline.h"

#include <QPointer>
#include <QUndoCommand>

namespace vantrix {

class AppModel;

// One undo step of the editor: the whole timeline as it was before an edit. Undo puts that
// timeline back and keeps the one it replaced; redo swaps them again, so undo and redo alternate
// between the two snapshots under the same action name ("Add Segment", "Trim", ...).
//
// It is pushed after the edit has been applied, so the stack's first redo() does nothing. It holds
// its model weakly: with the model gone, or once retired (its video was replaced), it does nothing
// and marks itself obsolete, which makes the stack drop it when it is reached.
//
// GUI thread only, like the stack and the model.
class TimelineSnapshotCommand final : public QUndoCommand {
 public:
  TimelineSnapshotCommand(AppModel& model, SpeedTimeline snapshot, const QString& actionName);

  void undo() override;
  void redo() override;

  bool belongsTo(const AppModel* model) const { return m_model == model; }
  void retire();

 private:
  void swapWithModel();

  QPointer<AppModel> m_model;
  SpeedTimeline m_snapshot;
  bool m_applied = true;  // the edit was already made when the command was pushed
  bool m_retired = false;
};

}  // namespace vantrix
