#include "app_shell/qt/colours.h"

#include <QApplication>
#include <QWidget>
#include <algorithm>
#include <cmath>

namespace qm5 {

namespace {

// The relative luminance of the web's accessibility guidelines.
double luminance(const QColor& colour) {
  const auto part = [](float value) { return std::pow(static_cast<double>(value), 2.2); };
  return 0.2126 * part(colour.redF()) + 0.7152 * part(colour.greenF()) +
         0.0722 * part(colour.blueF());
}

double contrast(const QColor& one, const QColor& other) {
  const auto [darker, lighter] = std::minmax({luminance(one), luminance(other)});
  return (lighter + 0.05) / (darker + 0.05);
}

// More than the usual light desktops have, whose windows are not quite white.
bool isHighContrast(const QPalette& palette) {
  constexpr double kLeast = 19;  // of at most 21
  return contrast(palette.color(QPalette::WindowText), palette.color(QPalette::Window)) >= kLeast;
}

}  // namespace

QColor mixed(const QColor& above, const QColor& below, double share) {
  const auto mix = [share](float one, float other) {
    return static_cast<float>(share * one + (1 - share) * other);
  };
  return QColor::fromRgbF(mix(above.redF(), below.redF()), mix(above.greenF(), below.greenF()),
                          mix(above.blueF(), below.blueF()));
}

QColor frameColour(const QPalette& palette) {
  constexpr double kShare = 0.35;  // of the text's colour
  const QColor text = palette.color(QPalette::WindowText);
  return mixed(text, palette.color(QPalette::Window), isHighContrast(palette) ? 1 : kShare);
}

void keepPartsVisible(QWidget& window) {
  constexpr double kDisabledShare = 0.6;  // of the text's colour
  const QPalette usual = QApplication::palette();
  const QColor text = usual.color(QPalette::WindowText);
  QPalette of_texts;
  QPalette of_frames;
  if (isHighContrast(usual)) {
    const QColor disabled = mixed(text, usual.color(QPalette::Window), kDisabledShare);
    for (const auto role : {QPalette::WindowText, QPalette::ButtonText, QPalette::Text}) {
      of_texts.setColor(QPalette::Disabled, role, disabled);
    }
    // What frames are darkened from. None of these has the window's colour elsewhere.
    of_frames.setColor(QPalette::Window, text);
  }
  window.setPalette(of_texts);
  for (QWidget* part : window.findChildren<QWidget*>()) {
    const bool is_framed = part->inherits("QPushButton") || part->inherits("QProgressBar") ||
                           part->inherits("QPlainTextEdit");
    if (is_framed) part->setPalette(of_frames);
  }
}

}  // namespace qm5
