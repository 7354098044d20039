#include "app_shell/qt/layouts.h"

#include "app_shell/qt/picture.h"
#include "ui_Main.h"
#include "ui_ProgressWindow.h"

namespace qm5 {

std::unique_ptr<NativeWindow> makeMainLayout() {
  auto window = std::make_unique<NativeWindow>(NativeWindow::Closing::byPerson, nullptr);
  Ui::Main layout;
  layout.setupUi(window.get());
  layout.imgDevice->setName("qm5");
  layout.txtProgram->setText("QM5 Updater " QM5_VERSION);
  // The box puts the buttons where the desktop has them, which a layout file can't.
  layout.buttonBox->addButton(layout.btnNext, QDialogButtonBox::AcceptRole);
  layout.buttonBox->addButton(layout.btnExit, QDialogButtonBox::RejectRole);
  layout.btnNext->setFocus();
  window->completeLayout(*layout.scrollable);
  return window;
}

std::unique_ptr<NativeWindow> makeProgressLayout(QWidget* parent) {
  auto window = std::make_unique<NativeWindow>(NativeWindow::Closing::byProgramOnly, parent);
  Ui::ProgressWindow layout;
  layout.setupUi(window.get());
  layout.buttonBox->addButton(layout.btnAbort, QDialogButtonBox::RejectRole);
  // Return and Space are what people press on and on; they must not lead to the question whether
  // to quit.
  layout.btnAbort->setAutoDefault(false);
  window->setFocusOnNothing();
  window->completeLayout(*layout.scrollable);
  return window;
}

}  // namespace qm5
