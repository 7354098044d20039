// The program's main window and nothing behind it: what of a start its look alone costs.
#include <QApplication>

#include "app_shell/qt/layouts.h"
#include "computer/package/file_package.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  qm5::setApplicationPackage(new qm5::FilePackage);
  const auto window = qm5::makeMainLayout();
  window->adjustSize();
  window->show();
  return QApplication::exec();
}
