// The toolkit port without a screen. Notes every call that shows something, with the
// thread that it came from when that is not the main one, and runs the main queue in its
// modal runs as a real toolkit does. Strict: an alert nobody answered, a modal run that
// nothing ends, or a control call off the main thread fails the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "app_shell/toolkit.h"
#include "transcript.h"

namespace qm5::test {

class ScriptedToolkit;

class ScriptedWindow final : public Window, public std::enable_shared_from_this<ScriptedWindow> {
 public:
  ScriptedWindow(ScriptedToolkit& toolkit, std::string name, Rect frame)
      : toolkit_(toolkit), name_(std::move(name)), frame_(frame) {}

  // Script it.
  std::set<std::string, std::less<>> missing_outlets;
  std::optional<Size> content_size = Size{320, 280};
  void press(const std::string& button) { actions_.at(button)(nullptr); }
  std::function<void()> willDisappear() const { return will_disappear_; }
  std::function<void()> tick = [] {};

  // The port.
  Rect frame() const override { return frame_; }
  void setFrameOrigin(Point origin) override;
  void setTitle(std::string_view title) override;
  std::optional<Size> contentViewSize() const override { return content_size; }
  std::shared_ptr<Button> button(std::string_view outlet) override;
  std::shared_ptr<TextField> textField(std::string_view outlet) override;
  std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) override;
  std::shared_ptr<StatusLine> statusLine(std::string_view outlet) override;
  void setTimer(double interval, std::function<void()> called) override {
    EXPECT_EQ(interval, 1);
    tick = std::move(called);
  }
  void setAction(std::string_view button, Action action) override {
    actions_[std::string(button)] = std::move(action);
  }
  void setViewWillDisappear(std::function<void()> callback) override {
    will_disappear_ = std::move(callback);
  }
  void addSubview(const ImageView& image) override;
  void addSubview(const Label& label) override;
  void addSubview(const PushButton& button) override;
  void show() override;
  void makeKeyAndOrderFront() override;
  void close() override;
  void setReleasedWhenClosed(bool released) override;
  void beginSheet(const Alert& alert, AlertCompletion completion) override;

 private:
  template <typename Control>
  std::shared_ptr<Control> control(std::string_view outlet);

  ScriptedToolkit& toolkit_;
  const std::string name_;
  Rect frame_;
  std::map<std::string, Action> actions_;
  std::map<std::string, std::shared_ptr<void>, std::less<>> controls_;
  std::function<void()> will_disappear_;
};

class ScriptedToolkit final : public Toolkit {
 public:
  explicit ScriptedToolkit(Transcript& transcript) : transcript_(transcript) { setToolkit(this); }
  ~ScriptedToolkit() override {
    EXPECT_FALSE(sheet_) << "an alert that nobody answered";
    setToolkit(nullptr);
  }

  // Script it.
  std::shared_ptr<ScriptedWindow> main =
      std::make_shared<ScriptedWindow>(*this, "main", Rect{{100, 200}, {400, 300}});
  std::shared_ptr<ScriptedWindow> progress =
      std::make_shared<ScriptedWindow>(*this, "progress", Rect{{0, 0}, {300, 100}});
  bool has_main_window = true;
  std::optional<std::string> image_path = "/package/image.bin";
  FileContents image = FileError{"not set"};
  /// Called once a second modal run is up, that of the finish dialog.
  std::function<void()> during_finish_dialog = [] {};
  /// Answers the alert that is up.
  void answer(int response) {
    ASSERT_TRUE(sheet_);
    std::exchange(sheet_, nullptr)(response);
  }

  // Read it back.
  void note(const std::string& line) {
    transcript_.note(line + (std::this_thread::get_id() == main_thread_ ? "" : " [job]"));
  }
  void noteOnMain(const std::string& line) {
    EXPECT_EQ(std::this_thread::get_id(), main_thread_) << line;
    note(line);
  }
  /// What the texts beside the run show, by outlet; no lines, as they follow bus and clock.
  std::map<std::string, std::string> shown;
  /// Returns once the progress window's modal run serves the main queue. Any thread.
  void waitUntilModal() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return serving_; });
  }
  /// Runs steps until an alert is up.
  void runUntilAlert() {
    while (!sheet_) {
      const auto step = next(kPatience);
      if (!step) {
        ADD_FAILURE() << "no alert came";
        return;
      }
      step();
    }
  }
  /// Runs the steps that are waiting.
  void drain() {
    while (const auto step = next(std::chrono::seconds(0))) step();
  }

  // The port.
  int applicationMain(int, char**, const MainStoryboard& storyboard) override {
    delegate = storyboard.makeDelegate();
    controller = storyboard.makeMainController(main);
    return 3;
  }
  std::shared_ptr<ApplicationDelegate> delegate;
  std::shared_ptr<void> controller;

  std::shared_ptr<Window> mainWindow() override { return has_main_window ? main : nullptr; }
  void runModalForWindow(const std::shared_ptr<Window>& window) override {
    noteOnMain("modal run");
    if (window != progress) return during_finish_dialog();
    stopped_ = false;
    {
      const std::lock_guard lock(mutex_);
      serving_ = true;
      changed_.notify_all();
    }
    while (!stopped_) {
      const auto step = next(kPatience);
      if (!step) {
        ADD_FAILURE() << "nothing ends the modal run";
        break;
      }
      step();
    }
    const std::lock_guard lock(mutex_);
    serving_ = false;
  }
  void stopModal() override {
    note("stopModal");
    onMain([this] { stopped_ = true; });
  }
  void terminate() override { noteOnMain("terminate"); }
  void requestTermination(std::function<void()> declined) override {
    if (delegate->applicationShouldTerminate(std::move(declined))) terminate();
  }
  void activate(const std::string&) override { noteOnMain("in front"); }
  std::shared_ptr<void> beginActivity(std::string_view reason) override {
    noteOnMain("awake: " + std::string(reason));
    return {nullptr, [this](void*) { noteOnMain("may sleep"); }};
  }
  void mainQueueAsync(std::function<void()> step) override {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
    changed_.notify_all();
  }
  std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                            std::string_view identifier) override {
    EXPECT_EQ(storyboard, "Main");
    EXPECT_EQ(identifier, "ProgressWindow");
    return progress;
  }
  std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) override {
    EXPECT_EQ(style, WindowStyle::titled);
    finish = std::make_shared<ScriptedWindow>(*this, "finish", content);
    finish->content_size = finish_content_size;
    return finish;
  }
  std::shared_ptr<ScriptedWindow> finish;
  std::optional<Size> finish_content_size = Size{320, 280};
  std::optional<std::string> pathForResource(std::string_view name,
                                             std::string_view extension) override {
    EXPECT_EQ(name, "QM5-combind-051723-secure-Cus-42");
    EXPECT_EQ(extension, "bin");
    return image_path;
  }
  FileContents readFile(const std::string& path) override {
    EXPECT_EQ(path, image_path);
    return image;
  }

 private:
  friend ScriptedWindow;
  static constexpr std::chrono::seconds kPatience{20};

  // At once on the main thread, as a step from another.
  void onMain(std::function<void()> action) {
    if (std::this_thread::get_id() == main_thread_) return action();
    mainQueueAsync(std::move(action));
  }
  std::function<void()> next(std::chrono::seconds patience) {
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, patience, [this] { return !steps_.empty(); })) return nullptr;
    auto step = std::move(steps_.front());
    steps_.pop_front();
    return step;
  }

  Transcript& transcript_;
  const std::thread::id main_thread_ = std::this_thread::get_id();
  AlertCompletion sheet_;
  bool stopped_ = false;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool serving_ = false;
  std::deque<std::function<void()>> steps_;
};

/// Every control of a layout in one: notes what is set on it.
class ScriptedControl final : public Button,
                              public TextField,
                              public ProgressIndicator,
                              public StatusLine {
 public:
  ScriptedControl(ScriptedToolkit& toolkit, std::string name)
      : toolkit_(toolkit), name_(std::move(name)) {}
  void setEnabled(bool enabled) override {
    toolkit_.noteOnMain(name_ + (enabled ? " enabled" : " disabled"));
  }
  void setStringValue(std::string_view text) override {
    static const std::set<std::string> kBeside = {"txtElapsed", "txtRemaining", "txtPhase"};
    if (kBeside.contains(name_)) return setStatus({}, text);
    toolkit_.noteOnMain(name_ + ": " + std::string(text));
  }
  void setStatus(Status, std::string_view text) override { toolkit_.shown[name_] = text; }
  void setDoubleValue(double value) override {
    toolkit_.noteOnMain(name_ + ": " + std::to_string(value));
  }

 private:
  ScriptedToolkit& toolkit_;
  const std::string name_;
};

inline std::string describe(const Rect& frame) {
  std::string text;
  for (const double value : {frame.origin.x, frame.origin.y, frame.size.width, frame.size.height})
    text.append(" ").append(std::to_string(static_cast<int>(value)));
  return text;
}

template <typename Control>
std::shared_ptr<Control> ScriptedWindow::control(std::string_view outlet) {
  if (missing_outlets.contains(outlet)) return nullptr;
  auto made = std::make_shared<ScriptedControl>(toolkit_, std::string(outlet));
  controls_.insert_or_assign(std::string(outlet), made);
  return made;
}

inline std::shared_ptr<Button> ScriptedWindow::button(std::string_view outlet) {
  return control<Button>(outlet);
}
inline std::shared_ptr<TextField> ScriptedWindow::textField(std::string_view outlet) {
  return control<TextField>(outlet);
}
inline std::shared_ptr<ProgressIndicator> ScriptedWindow::progressIndicator(
    std::string_view outlet) {
  return control<ProgressIndicator>(outlet);
}
inline std::shared_ptr<StatusLine> ScriptedWindow::statusLine(std::string_view outlet) {
  return control<StatusLine>(outlet);
}
inline void ScriptedWindow::setFrameOrigin(Point origin) {
  frame_.origin = origin;
  toolkit_.noteOnMain(name_ + " at" + describe(frame_));
}
inline void ScriptedWindow::setTitle(std::string_view title) {
  toolkit_.noteOnMain(name_ + " titled " + std::string(title));
}
inline void ScriptedWindow::addSubview(const ImageView& image) {
  toolkit_.noteOnMain("image" + describe(image.frame) + " " + image.imageNamed);
}
inline void ScriptedWindow::addSubview(const Label& label) {
  std::string line = "label" + describe(label.frame);
  if (label.boldSystemFontOfSize) {
    line.append(" bold ").append(std::to_string(static_cast<int>(*label.boldSystemFontOfSize)));
  }
  toolkit_.noteOnMain(line.append(label.wraps ? " wraps " : " ").append(label.text));
}
inline void ScriptedWindow::addSubview(const PushButton& button) {
  EXPECT_EQ(button.bezelStyle, BezelStyle::rounded);
  toolkit_.noteOnMain("button" + describe(button.frame) + " " + button.title);
  actions_[button.title] = button.action;
}
inline void ScriptedWindow::show() {
  toolkit_.noteOnMain(name_ + " shown");
}
inline void ScriptedWindow::makeKeyAndOrderFront() {
  toolkit_.noteOnMain(name_ + " in front");
}
inline void ScriptedWindow::close() {
  toolkit_.note(name_ + " closed");
  toolkit_.onMain([self = shared_from_this()] {
    if (self->will_disappear_) self->will_disappear_();
  });
}
inline void ScriptedWindow::setReleasedWhenClosed(bool released) {
  EXPECT_TRUE(released);
  toolkit_.noteOnMain(name_ + " released when closed");
}
inline void ScriptedWindow::beginSheet(const Alert& alert, AlertCompletion completion) {
  EXPECT_EQ(alert.style, AlertStyle::warning);
  std::string line = "alert on " + name_ + ": " + alert.messageText + " | " + alert.informativeText;
  for (const std::string& button : alert.buttons) line += " [" + button + "]";
  toolkit_.note(line);
  toolkit_.onMain([this, completion = std::move(completion)]() mutable {
    toolkit_.sheet_ = std::move(completion);
  });
}

}  // namespace qm5::test
