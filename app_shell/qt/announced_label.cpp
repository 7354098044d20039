#include "app_shell/qt/announced_label.h"

#include "app_shell/qt/accessible_role.h"

namespace qm5 {

// Before Qt 6.8 there are no announcements. A screen reader tells a notification, too, but only as
// it comes to be seen: so that is what a change is given out for.
AnnouncedLabel::AnnouncedLabel(QWidget* parent) : TextLabel(parent) {
#if QT_VERSION < QT_VERSION_CHECK(6, 8, 0)
  setAccessibleRole<AnnouncedLabel, QAccessible::Notification>();
#endif
}

void AnnouncedLabel::announce(const QString& text) {
  if (text == this->text()) return;
  setText(text);
  setAccessibleName(text);  // only a plain label is named by its text
  if (text.isEmpty()) return;
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
  QAccessibleAnnouncementEvent told(this, text);
#else
  if (!isVisible()) return;  // Qt itself says when it comes to be seen
  QAccessibleEvent told(this, QAccessible::ObjectShow);
#endif
  QAccessible::updateAccessibility(&told);
}

}  // namespace qm5
