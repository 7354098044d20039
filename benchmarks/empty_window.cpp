// The floor of a start: one empty window of Qt Widgets, as large as the program's main window.
#include <QApplication>
#include <QWidget>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QWidget window;
  window.resize(542, 297);
  window.show();
  return QApplication::exec();
}
