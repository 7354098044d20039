// Windows: their controls, their frames, and the alerts attached to them.
// Production: app_shell/qt/. Tests: tests/support/scripted_application.h.
//
// Frames are in points of the screen, with the origin at its lower left and y upwards; the
// adapter converts them. Unless a function says otherwise it is called on the main thread only.
// "Any thread" means that the adapter hands over to the main thread by itself and returns at
// once, and that calls from one thread keep their order.
//
// The window owns its controls. A caller holds them weakly: they end with their window.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/port.h"

namespace qm5 {

struct Point {
  double x = 0;
  double y = 0;
};

struct Size {
  double width = 0;
  double height = 0;
};

struct Rect {
  Point origin;
  Size size;
};

/// A control that sends an action when it is pressed.
class Button : public PortObject {
 public:
  virtual ~Button() = default;
  /// A disabled button is drawn so and can't be pressed.
  virtual void setEnabled(bool enabled) = 0;
  /// A hidden button takes no room. Buttons of a layout start as the layout has them.
  virtual void setHidden(bool hidden) = 0;
};

class TextField : public PortObject {
 public:
  virtual ~TextField() = default;
  /// Shows `text`, UTF-8, in place of what it showed before.
  virtual void setStringValue(std::string_view text) = 0;
};

/// A bar from 0 to 100.
class ProgressIndicator : public PortObject {
 public:
  virtual ~ProgressIndicator() = default;
  /// Fills the bar up to `value`, a percentage; values beyond an end fill it up to that end.
  virtual void setDoubleValue(double value) = 0;
};

/// What a status is about; each kind has a sign of its own, not only a colour.
enum class StatusKind { information, good, caution };

/// A sign and a text that say what is so.
class StatusIndicator : public PortObject {
 public:
  virtual ~StatusIndicator() = default;
  /// Shows the sign of `kind` and `text`, UTF-8, and announces a change to assistive technology.
  /// An empty text hides the indicator, which then takes no room.
  virtual void setStatus(StatusKind kind, std::string_view text) = 0;
};

/// What a control calls when it is pressed; `sender` is that control.
using Action = std::function<void(Button* sender)>;

enum class AlertStyle { warning = 0 };

struct Alert {
  std::string messageText;
  std::string informativeText;
  std::string firstButton;  ///< its response is kAlertFirstButtonReturn
  /// The responses of these count on from there. The last button of all is the safe one: Return,
  /// Space and Escape press it, and closing the alert by its frame answers as it does.
  std::vector<std::string> otherButtons;
  AlertStyle style = AlertStyle::warning;
  /// The alert comes up without a press of the person's, who may be typing: presses in its first
  /// half second count for nothing, and where another program has the keyboard, the alert asks for
  /// attention instead of taking it away.
  bool comesUnasked = false;
};

/// The response of an alert that ended by its first button; the others count on from it.
inline constexpr int kAlertFirstButtonReturn = 1000;
/// The response of an alert that the program took off the screen together with its window.
inline constexpr int kModalResponseAbort = -1001;
using AlertCompletion = std::function<void(int response)>;

/// Lines for a person to read, copy and save.
struct TextReport {
  std::string title;
  std::string introduction;  ///< what the lines are, and what to do with them
  std::string text;
  std::string fileName;  ///< what Save suggests
};

/// An image asset of the application's package, scaled to its frame.
struct ImageView {
  Rect frame;
  std::string imageNamed;
};

/// Static text, centred: not editable, not selectable, no border, background clear.
struct Label {
  Rect frame;
  std::string text;
  std::optional<double> boldSystemFontOfSize;  ///< points; absent: the default font
  bool wraps = false;                          ///< at words
};

enum class BezelStyle { none = 0, rounded = 1 };

struct PushButton {
  Rect frame;
  std::string title;
  BezelStyle bezelStyle = BezelStyle::none;
  Action action;
};

/// Bits of a window's style. Titled only: no close, minimise or resize control.
enum class WindowStyle { titled = 1 };

class Window : public PortObject {
 public:
  virtual ~Window() = default;

  /// The frame of the whole window, title bar included, also before it is on the screen.
  virtual Rect frame() = 0;
  /// Moves the window; its size stays.
  virtual void setFrameOrigin(Point origin) = 0;
  /// Shows `title`, UTF-8, in the title bar in place of the one before; also before the window is
  /// on the screen. Empty until then, or what the layout has.
  virtual void setTitle(std::string_view title) = 0;
  /// The size of the content view; empty when the window has none.
  virtual std::optional<Size> contentViewSize() = 0;

  // The controls of the layout by their outlet names; nullptr when it has no such control.
  virtual std::shared_ptr<Button> button(std::string_view outlet) = 0;
  virtual std::shared_ptr<TextField> textField(std::string_view outlet) = 0;
  virtual std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) = 0;
  virtual std::shared_ptr<StatusIndicator> statusIndicator(std::string_view outlet) = 0;
  /// Has `action` called when the button of that name is pressed, in place of what was called
  /// before; nothing happens when the layout has no such button.
  virtual void setAction(std::string_view button, Action action) = 0;
  /// Has `callback` called when the person uses a close control on a window that only the program
  /// closes: some desktops draw one all the same. Without a callback such a request is ignored.
  virtual void setCloseRequested(std::function<void()> callback) = 0;
  /// Has `callback` called just before the window's view leaves the screen, whatever takes it.
  virtual void setViewWillDisappear(std::function<void()> callback) = 0;
  /// Has `tick` called every `interval` seconds for as long as the window is on the screen.
  virtual void setTimer(double interval, std::function<void()> tick) = 0;

  // What a window built by the program shows. Frames are relative to its content view. Fatal
  // for a window that was made of a layout.
  virtual void addSubview(const ImageView& image) = 0;
  virtual void addSubview(const Label& label) = 0;
  virtual void addSubview(const PushButton& button) = 0;

  /// Makes a window built by the program taller at its top, by an indicator that spans its width;
  /// what it shows already keeps its place on the screen. nullptr, and nothing changes, when the
  /// screen has no room for that. To be called no more once there is one, which the window keeps.
  virtual std::shared_ptr<StatusIndicator> growStatusIndicator() = 0;

  /// Puts the window on the screen; nothing happens when it is there.
  virtual void show() = 0;
  /// Shows the window, restores it when it is minimised, and asks for the keyboard. One that the
  /// program has built comes up by itself: while another program has the keyboard, it asks for
  /// attention instead.
  virtual void makeKeyAndOrderFront() = 0;
  /// Takes the window off the screen, together with the alerts attached to it. Any thread.
  virtual void close() = 0;
  /// Whether close() also drops what the window holds. Nothing that a caller can see changes.
  virtual void setReleasedWhenClosed(bool released) = 0;

  /// Shows `alert` attached to this window and returns at once. `completion` is called on the
  /// main thread, exactly once, with the response. Any thread.
  virtual void beginSheet(const Alert& alert, AlertCompletion completion) = 0;
  /// Shows `report` in a window attached to this one, with Copy, Save and Close, and returns at
  /// once.
  virtual void showText(const TextReport& report) = 0;
};

}  // namespace qm5
