// Colours that can be told apart, in the palettes of all desktops.
#pragma once

#include <QColor>
#include <QPalette>

class QWidget;

namespace qm5 {

/// `share` of `above`, 0 to 1, and of `below` what is left.
QColor mixed(const QColor& above, const QColor& below, double share);

/// A frame on the palette's window: to be seen, but behind the text.
QColor frameColour(const QPalette& palette);

/// Gives `window` and what is in it the colours that keep frames and disabled texts visible in a
/// high-contrast palette. Styles derive those by darkening, and black stays black.
void keepPartsVisible(QWidget& window);

}  // namespace qm5
