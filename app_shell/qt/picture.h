// The pictures of the application's package.
#pragma once

#include <string_view>

class QLabel;

namespace qm5 {

/// Shows the resource NAME.png in `label`, as large as the label and sharp at every screen scale:
/// Qt takes NAME@2x.png or NAME@3x.png where a screen has the pixels for it. Nothing is shown when
/// there is no such resource.
void showPicture(QLabel& label, std::string_view name);

}  // namespace qm5
