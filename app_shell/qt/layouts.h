// The windows that are laid out in resources/*.ui.
#pragma once

#include <memory>

#include "app_shell/qt/native_window.h"

namespace qm5 {

/// The main window. Main thread.
std::unique_ptr<NativeWindow> makeMainLayout();

/// The progress window, which stands on `parent`, or on nothing for nullptr. Main thread.
std::unique_ptr<NativeWindow> makeProgressLayout(QWidget* parent);

}  // namespace qm5
