// What assistive technology takes a widget for.
#pragma once

#include <QAccessible>
#include <QAccessibleWidget>

namespace qm5 {

/// Has assistive technology take every `Widget` for one of that role. It may be called for each
/// widget that is made. Main thread.
template <typename Widget, QAccessible::Role kRole>
void setAccessibleRole() {
  QAccessible::installFactory([](const QString&, QObject* object) -> QAccessibleInterface* {
    auto* widget = qobject_cast<Widget*>(object);
    return widget ? new QAccessibleWidget(widget, kRole) : nullptr;
  });
}

}  // namespace qm5
