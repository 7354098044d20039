// Alerts attached to a window.
#pragma once

#include <QWidget>

#include "app_shell/toolkit.h"

namespace qm5 {

/// Shows `alert` attached to `window`, blocking that window only, and returns at once.
/// Return presses the first button, Escape the last one; with "OK" alone they are the same.
/// Main thread.
void openAlert(QWidget& window, const Alert& alert, AlertCompletion completion);

/// Ends the alerts attached to `window` with kModalResponseAbort. Main thread.
void abortAlerts(QWidget& window);

}  // namespace qm5
