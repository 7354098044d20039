#include "app_shell/qt/press_guard.h"

#include <QApplication>
#include <QKeyEvent>
#include <QWidget>
#include <QWindow>
#include <utility>

#include "platform/clock.h"

namespace qm5 {

namespace {

// In seconds: longer than it takes to press a key that one was about to press.
constexpr double kFirstPresses = 0.5;

// In seconds: longer than a keyboard takes to repeat a key for the first time.
constexpr double kLongestRepetition = 1;

PressGuard* started = nullptr;

bool pressesButtons(int key) {
  return key == Qt::Key_Return || key == Qt::Key_Enter || key == Qt::Key_Space;
}

bool isPress(QEvent::Type type) {
  return type == QEvent::KeyPress || type == QEvent::Shortcut || type == QEvent::MouseButtonPress ||
         type == QEvent::MouseButtonDblClick;
}

// ShortcutOverride comes before a press, and asks whether that may be a mnemonic.
bool isKey(QEvent::Type type) {
  return type == QEvent::KeyPress || type == QEvent::KeyRelease || type == QEvent::ShortcutOverride;
}

// An event comes to the window first and to its widgets then.
QWindow* windowOf(QObject& receiver) {
  if (auto* widget = qobject_cast<QWidget*>(&receiver)) return widget->window()->windowHandle();
  return qobject_cast<QWindow*>(&receiver);
}

}  // namespace

void PressGuard::start() {
  if (started) return;
  started = new PressGuard(qApp);
  qApp->installEventFilter(started);
  connect(qApp, &QObject::destroyed, [] { started = nullptr; });
  // A key that is let go in another program is not heard of.
  connect(qApp, &QGuiApplication::applicationStateChanged, started, [guard = started](auto state) {
    if (state != Qt::ApplicationActive) guard->held_.clear();
  });
}

void PressGuard::ignoreFirstPresses(QWidget& window) {
  start();
  started->first_presses_.push_back({&window, std::nullopt});
}

bool PressGuard::eventFilter(QObject* receiver, QEvent* event) {
  const QEvent::Type type = event->type();
  if (type == QEvent::Expose) countFromNow(*receiver);
  if (isKey(type) && isRepetition(*receiver, static_cast<const QKeyEvent&>(*event))) {
    event->accept();  // or it presses a button by its mnemonic
    return true;
  }
  return isPress(type) && isTooEarly(*receiver);
}

void PressGuard::countFromNow(const QObject& window) {
  for (FirstPresses& first : first_presses_) {
    const bool is_this = first.window && first.window->windowHandle() == &window;
    if (is_this && first.window->windowHandle()->isExposed() && !first.end)
      first.end = processClock().now() + kFirstPresses;
  }
}

bool PressGuard::isTooEarly(const QObject& receiver) {
  const double now = processClock().now();
  std::erase_if(first_presses_, [&](const FirstPresses& first) {
    return !first.window || (first.end && now >= *first.end);
  });
  for (const FirstPresses& first : first_presses_) {
    const auto* widget = qobject_cast<const QWidget*>(&receiver);
    if (widget && widget->window() == first.window) return true;
    if (&receiver == first.window->windowHandle()) return true;
  }
  return false;
}

// Some platforms count the first repetition in a new window as a press. A key that has been still
// for longer than that takes was let go, though nobody heard of it: where another window has become
// modal in between, Qt drops the release.
bool PressGuard::isRepetition(QObject& receiver, const QKeyEvent& key) {
  if (key.type() == QEvent::KeyRelease) {
    if (!key.isAutoRepeat()) held_.erase(key.key());
    return key.isAutoRepeat() && pressesButtons(key.key());
  }
  const bool is_mnemonic = key.modifiers().testFlag(Qt::AltModifier);
  if (key.type() == QEvent::KeyPress ? !pressesButtons(key.key()) : !is_mnemonic) return false;
  const double now = processClock().now();
  const Held held{windowOf(receiver), now};
  const auto [known, is_new] = held_.try_emplace(key.key(), held);
  const Held before = std::exchange(known->second, held);
  if (key.isAutoRepeat()) return true;
  return !is_new && before.window != held.window && now < before.last_press + kLongestRepetition;
}

}  // namespace qm5
