#include "app_shell/qt/picture.h"

#include <QLabel>
#include <QPixmap>

#include "app_shell/ports/package.h"

namespace qm5 {

void showPicture(QLabel& label, std::string_view name) {
  label.setAccessibleName("QM5");  // which all of them show
  const auto path = applicationPackage().pathForResource(name, "png");
  if (!path) return;
  label.setScaledContents(true);
  label.setPixmap(QPixmap(QString::fromStdString(*path)));
}

}  // namespace qm5
