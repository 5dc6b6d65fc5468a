#include "views/EditedLengthView.h"

#include "app/AppModel.h"
#include "views/Appearance.h"
#include "views/Timecode.h"
#include "views/TimelineView.h"

namespace vantrix {

EditedLengthView::EditedLengthView(AppModel& model, TimelineView& strip, QWidget* parent)
    : QLabel(parent), m_model(model), m_strip(strip) {
  setAccessibleName(QStringLiteral("Edited length"));
  setToolTip(QStringLiteral("Length of the source -> length of the edited video"));
  setAlignment(Qt::AlignRight | Qt::AlignVCenter);
  QFont font = Appearance::captionMonospacedFont();
  font.setPointSizeF(Appearance::bodyFont().pointSizeF());
  setFont(font);
  // Room for "00:00 -> 00:00" so the strip does not shift as the digits change (fixed-pitch).
  setMinimumWidth(fontMetrics().horizontalAdvance(QStringLiteral("00:00 -> 00:00")) + 8);
  connect(&m_strip, &TimelineView::liveTimelineChanged, this, &EditedLengthView::refresh);
  connect(&m_model, &AppModel::timelineChanged, this, &EditedLengthView::refresh);
  connect(&m_model, &AppModel::durationChanged, this, &EditedLengthView::refresh);
  refresh();
}

void EditedLengthView::refresh() {
  const std::optional<SpeedTimeline> live = m_strip.liveTimeline();
  setText(live ? editedLengthText(m_model.duration(), live->outputDuration()) : QString());
}

}  // namespace vantrix
