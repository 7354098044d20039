// The windowing toolkit: windows, alerts, modal runs, the main queue, the application's
// resources and its end.
// Production: qt/. Tests: tests/support/scripted_toolkit.h.
//
// Frames are in points of the screen, with the origin at its lower left and y upwards;
// the adapter turns them over. Unless a function says otherwise it is called on the main
// thread only. "Any thread" means that the adapter hands over to the main thread by
// itself and returns at once, and that calls from one thread keep their order.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/bytes.h"

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

/// A control that sends an action. Controls and windows belong to the adapter; the logic's
/// outlets are weak.
class Button {
 public:
  virtual ~Button() = default;
  virtual void setEnabled(bool enabled) = 0;
};

class TextField {
 public:
  virtual ~TextField() = default;
  virtual void setStringValue(std::string_view text) = 0;
};

class ProgressIndicator {
 public:
  virtual ~ProgressIndicator() = default;
  virtual void setDoubleValue(double value) = 0;
};

/// What a status line is about; each has a sign of its own, not a colour alone.
enum class Status { information, good, caution };

/// A sign and a text that tell what is so. Changes are announced to assistive technology.
class StatusLine {
 public:
  virtual ~StatusLine() = default;
  virtual void setStatus(Status status, std::string_view text) = 0;
};

/// What a control calls when it is pressed; `sender` is that control.
using Action = std::function<void(Button* sender)>;

enum class AlertStyle { warning = 0 };

struct Alert {
  std::string messageText;
  std::string informativeText;
  std::vector<std::string> buttons;  ///< the first one is the default button
  AlertStyle style = AlertStyle::warning;
};

/// The response of an alert that ended by its first button; the others count on from it.
inline constexpr int kAlertFirstButtonReturn = 1000;
/// The response of an alert that went away without an answer, with its window for example.
inline constexpr int kModalResponseAbort = -1001;
using AlertCompletion = std::function<void(int response)>;

/// An image asset, scaled to its frame.
struct ImageView {
  Rect frame;
  std::string imageNamed;
};

/// Static text, centred: not editable, not selectable, no border, background clear.
struct Label {
  Rect frame;
  std::string text;
  std::optional<double> boldSystemFontOfSize;  ///< absent: the default font
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

class Window {
 public:
  virtual ~Window() = default;

  virtual Rect frame() const = 0;
  virtual void setFrameOrigin(Point origin) = 0;
  virtual void setTitle(std::string_view title) = 0;
  /// The size of the content view; empty when the window has none.
  virtual std::optional<Size> contentViewSize() const = 0;

  // The controls of the layout by their outlet names; nullptr when it has no such control.
  virtual std::shared_ptr<Button> button(std::string_view outlet) = 0;
  virtual std::shared_ptr<TextField> textField(std::string_view outlet) = 0;
  virtual std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) = 0;
  virtual std::shared_ptr<StatusLine> statusLine(std::string_view outlet) = 0;
  /// Wires the button of that name; nothing happens when the layout has none.
  virtual void setAction(std::string_view button, Action action) = 0;
  /// Has `callback` called just before the window's view leaves the screen, whatever takes it.
  virtual void setViewWillDisappear(std::function<void()> callback) = 0;

  /// Has `tick` called every `interval` seconds for as long as the window is on the screen.
  virtual void setTimer(double interval, std::function<void()> tick) = 0;

  // What a window built by the program shows. Frames are relative to its content view.
  virtual void addSubview(const ImageView& image) = 0;
  virtual void addSubview(const Label& label) = 0;
  virtual void addSubview(const PushButton& button) = 0;

  virtual void show() = 0;
  virtual void makeKeyAndOrderFront() = 0;
  /// Takes the window off the screen, together with the alerts attached to it. Any thread.
  virtual void close() = 0;
  virtual void setReleasedWhenClosed(bool released) = 0;

  /// Shows `alert` attached to this window and returns at once. `completion` is called on
  /// the main thread with the response. Any thread.
  virtual void beginSheet(const Alert& alert, AlertCompletion completion) = 0;
};

/// What the toolkit asks and tells the application's delegate.
class ApplicationDelegate {
 public:
  virtual ~ApplicationDelegate() = default;
  virtual void applicationDidFinishLaunching() = 0;
  virtual void applicationWillTerminate() = 0;
  virtual bool applicationSupportsSecureRestorableState() = 0;
  virtual bool applicationShouldTerminateAfterLastWindowClosed() = 0;
  /// The session's end or a signal wants the application to end. True: it may, now. False:
  /// the person is being asked; `declined` is called when that has not ended it.
  virtual bool applicationShouldTerminate(std::function<void()> declined) = 0;
};

/// The application's classes that the main layout is made of.
struct MainStoryboard {
  std::function<std::shared_ptr<ApplicationDelegate>()> makeDelegate;
  /// Makes the controller of the main window, which it is handed, and returns what keeps
  /// it alive.
  std::function<std::shared_ptr<void>(const std::shared_ptr<Window>& main_window)>
      makeMainController;
};

/// The bytes of a file, or the description of why it can't be read.
struct FileError {
  std::string description;
};
using FileContents = std::variant<Bytes, FileError>;

class Toolkit {
 public:
  virtual ~Toolkit() = default;

  /// Starts the toolkit, loads the main storyboard, shows the main window and serves its
  /// events until they end, which terminates the application. Returns the exit status where
  /// terminate() returns.
  virtual int applicationMain(int argc, char** argv, const MainStoryboard& storyboard) = 0;

  /// The application's main window; nullptr while it has none.
  virtual std::shared_ptr<Window> mainWindow() = 0;
  /// Serves events, and the main queue, for this window only, until stopModal(). The caller
  /// keeps the window, which has been shown, for as long as that takes.
  virtual void runModalForWindow(const std::shared_ptr<Window>& window) = 0;
  /// Ends the innermost modal run; without one nothing happens. Any thread.
  virtual void stopModal() = 0;
  /// Ends the process at once with status 0, whatever other threads are doing. Does not
  /// return, except in tests.
  virtual void terminate() = 0;
  /// Terminates as soon as the delegate or the person agrees; `declined` is called on the main
  /// thread when the application is to go on instead. Any thread.
  virtual void requestTermination(std::function<void()> declined) = 0;
  /// Brings the application's windows to the front. `activation_token` is what the desktop
  /// gave to the start that this answers; it may be empty.
  virtual void activate(const std::string& activation_token) = 0;
  /// Keeps the computer awake for `reason`, which the desktop shows, for as long as the
  /// returned token is held. Where that can't be had, the system log says so. Returns at once.
  virtual std::shared_ptr<void> beginActivity(std::string_view reason) = 0;
  /// Submits a step to the main queue and returns at once. Any thread.
  virtual void mainQueueAsync(std::function<void()> step) = 0;

  /// A new window made of the layout of that name; nullptr when there is none.
  virtual std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                                    std::string_view identifier) = 0;
  /// A new, empty window that is not on screen yet.
  virtual std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) = 0;

  /// The path of a resource of the application's package; empty when there is none.
  virtual std::optional<std::string> pathForResource(std::string_view name,
                                                     std::string_view extension) = 0;
  /// Reads a whole file. Never waits for anything but a disk.
  virtual FileContents readFile(const std::string& path) = 0;
};

/// The toolkit that the process uses; fatal when none has been set. Any thread.
Toolkit& toolkit();
/// Sets it, before the first controller is made. `toolkit` stays the caller's.
void setToolkit(Toolkit* toolkit);

}  // namespace qm5
