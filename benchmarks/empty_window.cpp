// empty_window [TEXT]: the floor of a start: one empty window of Qt Widgets, about as large
// as the program's main window. With a text it shows that one, which is the floor of all that have
// any.
#include <QApplication>
#include <QLabel>

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QWidget window;
  window.resize(542, 297);
  if (argc > 1) (new QLabel(argv[1], &window))->move(24, 24);
  window.show();
  return QApplication::exec();
}
