#pragma once

#include <QLabel>

namespace vantrix {

class AppModel;
class TimelineView;

// The source length against the edited length beside the strip ("10:00 -> 2:47"), following the
// strip's live timeline so that it changes while a region, an edge or a trim is dragged. Empty
// while there is no timeline. GUI thread; the model and the strip outlive it.
class EditedLengthView final : public QLabel {
  Q_OBJECT

 public:
  EditedLengthView(AppModel& model, TimelineView& strip, QWidget* parent = nullptr);

 private:
  void refresh();

  AppModel& m_model;
  TimelineView& m_strip;
};

}  // namespace vantrix
