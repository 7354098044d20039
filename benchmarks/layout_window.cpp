// The program's main window and nothing behind it: what of a start its look alone costs.
#include <QApplication>

#include "app_shell/qt/layouts.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  const auto window = qm5::makeMainLayout();
  window->adjustSize();
  window->show();
  return QApplication::exec();
}
