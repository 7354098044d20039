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

/// The main thread, which is the one that made it: its queue, and what shows on its screen.
class ScriptedMainThread {
 public:
  explicit ScriptedMainThread(Transcript& transcript) : transcript_(transcript) {}

  void note(const std::string& line) {
    transcript_.note(line + (std::this_thread::get_id() == thread_ ? "" : " [job]"));
  }
  void noteOnMain(const std::string& line) {
    EXPECT_EQ(std::this_thread::get_id(), thread_) << line;
    note(line);
  }
  void async(std::function<void()> step) {
    const std::lock_guard lock(mutex_);
    steps_.push_back(std::move(step));
    changed_.notify_all();
  }
  // At once on the main thread, as a step from another.
  void perform(std::function<void()> action) {
    if (std::this_thread::get_id() == thread_) return action();
    async(std::move(action));
  }
  /// What the texts beside the run show, by outlet; no lines, as they follow bus and clock.
  std::map<std::string, std::string> shown;
  AlertCompletion sheet;  ///< of the alert that is up

 protected:
  static constexpr std::chrono::seconds kPatience{20};

  // Runs steps until `ended`; false when none comes any more.
  bool serveUntil(const std::function<bool()>& ended, std::chrono::seconds patience = kPatience) {
    while (!ended()) {
      std::unique_lock lock(mutex_);
      if (!changed_.wait_for(lock, patience, [this] { return !steps_.empty(); })) return false;
      const auto step = std::move(steps_.front());
      steps_.pop_front();
      lock.unlock();
      step();
    }
    return true;
  }
  std::mutex mutex_;
  std::condition_variable changed_;

 private:
  Transcript& transcript_;
  const std::thread::id thread_ = std::this_thread::get_id();
  std::deque<std::function<void()>> steps_;
};

/// Every control of a layout in one: notes what is set on it.
class ScriptedControl final : public Button,
                              public TextField,
                              public ProgressIndicator,
                              public StatusLine {
 public:
  ScriptedControl(ScriptedMainThread& main_thread, std::string_view name)
      : main_thread_(main_thread), name_(name) {}
  void setEnabled(bool enabled) override {
    main_thread_.noteOnMain(name_ + (enabled ? " enabled" : " disabled"));
  }
  void setStringValue(std::string_view text) override {
    static const std::set<std::string> kBeside = {"txtElapsed", "txtRemaining", "txtPhase"};
    if (kBeside.contains(name_)) return setStatus({}, text);
    main_thread_.noteOnMain(name_ + ": " + std::string(text));
  }
  void setStatus(Status, std::string_view text) override { main_thread_.shown[name_] = text; }
  void setDoubleValue(double value) override {
    main_thread_.noteOnMain(name_ + ": " + std::to_string(value));
  }

 private:
  ScriptedMainThread& main_thread_;
  const std::string name_;
};

inline std::string describe(const Rect& frame) {
  std::string text;
  for (const double value : {frame.origin.x, frame.origin.y, frame.size.width, frame.size.height})
    text.append(" ").append(std::to_string(static_cast<int>(value)));
  return text;
}

class ScriptedWindow final : public Window, public std::enable_shared_from_this<ScriptedWindow> {
 public:
  ScriptedWindow(ScriptedMainThread& main_thread, std::string name, Rect frame,
                 std::optional<Size> content_size = {})
      : main_thread_(main_thread),
        name_(std::move(name)),
        frame_(frame),
        content_size_(content_size) {}

  // Script it.
  std::set<std::string, std::less<>> missing_outlets;
  void press(const std::string& button) { actions_.at(button)(nullptr); }
  std::function<void()> tick = [] {};

  // The port.
  Rect frame() const override { return frame_; }
  void setFrameOrigin(Point origin) override {
    frame_.origin = origin;
    noteOnMain("at" + describe(frame_));
  }
  void setTitle(std::string_view title) override { noteOnMain("titled " + std::string(title)); }
  std::optional<Size> contentViewSize() const override { return content_size_; }
  std::shared_ptr<Button> button(std::string_view outlet) override { return control(outlet); }
  std::shared_ptr<TextField> textField(std::string_view outlet) override { return control(outlet); }
  std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) override {
    return control(outlet);
  }
  std::shared_ptr<StatusLine> statusLine(std::string_view outlet) override {
    return control(outlet);
  }
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
  void addSubview(const ImageView& image) override {
    main_thread_.noteOnMain("image" + describe(image.frame) + " " + image.imageNamed);
  }
  void addSubview(const Label& label) override {
    std::string line = "label" + describe(label.frame);
    if (const auto bold = label.boldSystemFontOfSize)
      line.append(" bold ").append(std::to_string(static_cast<int>(*bold)));
    main_thread_.noteOnMain(line.append(label.wraps ? " wraps " : " ").append(label.text));
  }
  void addSubview(const PushButton& button) override {
    EXPECT_EQ(button.bezelStyle, BezelStyle::rounded);
    main_thread_.noteOnMain("button" + describe(button.frame) + " " + button.title);
    actions_[button.title] = button.action;
  }
  void show() override { noteOnMain("shown"); }
  void makeKeyAndOrderFront() override { noteOnMain("in front"); }
  void close() override {
    main_thread_.note(name_ + " closed");
    main_thread_.perform([self = shared_from_this()] {
      if (self->will_disappear_) self->will_disappear_();
    });
  }
  void setReleasedWhenClosed(bool released) override {
    EXPECT_TRUE(released);
    noteOnMain("released when closed");
  }
  void beginSheet(const Alert& alert, AlertCompletion completion) override {
    EXPECT_EQ(alert.style, AlertStyle::warning);
    std::string line = "alert on " + name_ + ": ";
    line.append(alert.messageText).append(" | ").append(alert.informativeText);
    for (const std::string& button : alert.buttons) line.append(" [").append(button).append("]");
    main_thread_.note(line);
    main_thread_.perform([this, completion] { main_thread_.sheet = completion; });
  }

 private:
  void noteOnMain(const std::string& what) { main_thread_.noteOnMain(name_ + " " + what); }
  std::shared_ptr<ScriptedControl> control(std::string_view outlet) {
    if (missing_outlets.contains(outlet)) return nullptr;
    return controls_[std::string(outlet)] = std::make_shared<ScriptedControl>(main_thread_, outlet);
  }

  ScriptedMainThread& main_thread_;
  const std::string name_;
  Rect frame_;
  const std::optional<Size> content_size_;
  std::map<std::string, Action> actions_;
  std::map<std::string, std::shared_ptr<ScriptedControl>> controls_;
  std::function<void()> will_disappear_;
};

class ScriptedToolkit final : public Toolkit, public ScriptedMainThread {
 public:
  explicit ScriptedToolkit(Transcript& transcript) : ScriptedMainThread(transcript) {
    setToolkit(this);
  }
  ~ScriptedToolkit() override {
    EXPECT_FALSE(sheet) << "an alert that nobody answered";
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
    ASSERT_TRUE(sheet);
    std::exchange(sheet, nullptr)(response);
  }

  /// Returns once the progress window's modal run serves the main queue. Any thread.
  void waitUntilModal() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return serving_; });
  }
  /// Runs steps until an alert is up.
  void runUntilAlert() {
    EXPECT_TRUE(serveUntil([this] { return sheet != nullptr; })) << "no alert came";
  }
  /// Runs the steps that are waiting.
  void drain() {
    serveUntil([] { return false; }, std::chrono::seconds(0));
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
    setServing(true);
    EXPECT_TRUE(serveUntil([this] { return stopped_; })) << "nothing ends the modal run";
    setServing(false);
  }
  void stopModal() override {
    note("stopModal");
    perform([this] { stopped_ = true; });
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
  void mainQueueAsync(std::function<void()> step) override { async(std::move(step)); }
  std::shared_ptr<Window> instantiateWindow(std::string_view storyboard,
                                            std::string_view identifier) override {
    EXPECT_EQ(storyboard, "Main");
    EXPECT_EQ(identifier, "ProgressWindow");
    return progress;
  }
  std::shared_ptr<Window> makeWindow(Rect content, WindowStyle style) override {
    EXPECT_EQ(style, WindowStyle::titled);
    finish = std::make_shared<ScriptedWindow>(*this, "finish", content, finish_content_size);
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
  void setServing(bool serving) {
    const std::lock_guard lock(mutex_);
    serving_ = serving;
    changed_.notify_all();
  }

  bool stopped_ = false;
  bool serving_ = false;
};

}  // namespace qm5::test
