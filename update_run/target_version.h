// The firmware version that the packaged image brings. The layouts resources/Main.ui and
// resources/ProgressWindow.ui can't use this constant and show the number too.
#pragma once

#include <string_view>

namespace qm5 {

/// Four hexadecimal digits. Compared with the QM5's version for equality only: a QM5 with a newer
/// version is updated too.
inline constexpr std::string_view kTargetVersion = "4208";

}  // namespace qm5
