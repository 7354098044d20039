// Places of windows, in the toolkit's coordinates: origin at the lower left, y upwards.
#pragma once

#include "app_shell/ports/window.h"

namespace qm5 {

inline Point centreOf(const Rect& frame) {
  return {frame.origin.x + frame.size.width / 2, frame.origin.y + frame.size.height / 2};
}

/// Moves `window` so that its centre lies on `centre`.
inline void centreOn(Window& window, Point centre) {
  const Size size = window.frame().size;
  window.setFrameOrigin({centre.x - size.width / 2, centre.y - size.height / 2});
}

}  // namespace qm5
