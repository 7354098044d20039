// Alerts attached to a window.
#pragma once

#include <QWidget>

#include "app_shell/toolkit.h"

namespace qm5 {

/// Shows `alert` attached to `window`, blocking that window only, and returns at once.
/// Return presses the first button, Escape the last one; with "OK" alone they are the same.
/// Main thread.
void openAlert(QWidget& window, const Alert& alert, AlertCompletion completion);

/// Shows `alert` as all that the program shows, and returns when it has been answered. Stands in
/// for QtToolkit::applicationMain.
void showNotice(int argc, char** argv, const Alert& alert);

/// Ends the alerts attached to `window` with kModalResponseAbort. Main thread.
void abortAlerts(QWidget& window);

}  // namespace qm5
