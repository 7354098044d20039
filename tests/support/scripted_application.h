// The ports of the shell without a screen. Notes every call that shows something, with the
// thread that it came from when that is not the main one, and runs the main queue in its
// modal runs as a real toolkit does. Strict: an alert nobody answered, a modal run that
// nothing ends, or a control call off the main thread fails the test.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "app_shell/ports/application.h"
#include "app_shell/ports/desktop_notifications.h"
#include "computer/package.h"
#include "computer/wakefulness.h"
#include "transcript.h"

namespace qm5::test {

/// The main thread, which is the one that made it: its queue, and what shows on its screen.
class ScriptedMainThread {
 public:
  explicit ScriptedMainThread(Transcript& transcript) : transcript_(transcript) {}

  void note(const std::string& line) {
    transcript_.note(line + (std::this_thread::get_id() == thread_ ? "" : " [job]"));
  }
  void expectMain(const std::string& what) {
    EXPECT_EQ(std::this_thread::get_id(), thread_) << what;
  }
  void noteOnMain(const std::string& line) {
    expectMain(line);
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
  /// Calls `look` on the calling thread while the main one has nothing to do and waits for its
  /// next step, so that what it shows can be read. Any other thread.
  void whenIdle(const std::function<void()>& look) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return idle_ && steps_.empty(); });
    look();
  }
  /// What each outlet shows; also "alert", "finish" with all texts of that dialog, and "progress"
  /// while that window is up. Two windows have a "deviceStatus": the progress window's is
  /// "progress deviceStatus".
  std::map<std::string, std::string, std::less<>> shown;
  AlertCompletion sheet;  ///< of the alert that is up
  bool sheet_came_unasked = false;

 protected:
  static constexpr std::chrono::seconds kPatience{20};

  // Runs steps until `ended`, or until none comes any more. Where one must come, the process ends
  // then: the cases behind this one would each wait as long.
  void serveUntil(const std::function<bool()>& ended, std::chrono::seconds patience = kPatience) {
    while (!ended()) {
      std::unique_lock lock(mutex_);
      idle_ = true;
      if (steps_.empty()) changed_.notify_all();
      const bool comes = changed_.wait_for(lock, patience, [this] { return !steps_.empty(); });
      idle_ = false;
      if (!comes && patience < kPatience) return;
      if (!comes) {
        ADD_FAILURE() << "what must come does not";
        std::_Exit(EXIT_FAILURE);
      }
      const auto step = std::move(steps_.front());
      steps_.pop_front();
      lock.unlock();
      step();
    }
  }
  std::mutex mutex_;
  std::condition_variable changed_;

 private:
  Transcript& transcript_;
  const std::thread::id thread_ = std::this_thread::get_id();
  std::deque<std::function<void()>> steps_;
  bool idle_ = false;
};

/// Every control of a layout in one: notes what is set on it.
class ScriptedControl final : public Button,
                              public TextField,
                              public ProgressIndicator,
                              public StatusIndicator {
 public:
  ScriptedControl(ScriptedMainThread& main_thread, std::string_view window, std::string_view name)
      : main_thread_(main_thread),
        name_(name),
        shown_(main_thread
                   .shown[window == "progress" && name == "deviceStatus" ? "progress deviceStatus"
                                                                         : name_]) {}
  void setEnabled(bool enabled) override {
    main_thread_.noteOnMain(name_ + (enabled ? " enabled" : " disabled"));
  }
  void setHidden(bool hidden) override { shown_ = hidden ? "" : "shown"; }
  void setStringValue(std::string_view text) override {
    static const std::set<std::string> kBeside = {"txtElapsed", "txtRemaining", "txtPhase",
                                                  "txtPackagedVersion"};
    setStatus({}, text);
    // No lines of these, as they follow bus and clock.
    if (!kBeside.contains(name_)) main_thread_.noteOnMain(name_ + ": " + shown_);
  }
  void setStatus(StatusKind, std::string_view text) override {
    main_thread_.expectMain(name_);
    shown_ = text;
  }
  void setDoubleValue(double value) override {
    shown_ = std::to_string(value);
    main_thread_.noteOnMain(name_ + ": " + shown_);
  }

 private:
  ScriptedMainThread& main_thread_;
  const std::string name_;
  std::string& shown_;
};

inline std::string describe(const Rect& frame) {
  std::string text;
  for (const double value : {frame.origin.x, frame.origin.y, frame.size.width, frame.size.height})
    text.append(" ").append(std::to_string(std::lround(value)));
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
  bool has_room = true;  // for growStatusIndicator()
  void press(const std::string& button) { actions_.at(button)(nullptr); }
  std::function<void()> tick = [] {};
  std::function<void()> close_requested = [] {};

  // The port.
  Rect frame() override { return frame_; }
  void setFrameOrigin(Point origin) override {
    frame_.origin = origin;
    noteOnMain("at" + describe(frame_));
  }
  void setTitle(std::string_view title) override {
    noteOnMain("titled " + std::string(title));
    display(std::string(title));
  }
  std::optional<Size> contentViewSize() override { return content_size_; }
  std::shared_ptr<Button> button(std::string_view outlet) override { return control(outlet); }
  std::shared_ptr<TextField> textField(std::string_view outlet) override { return control(outlet); }
  std::shared_ptr<ProgressIndicator> progressIndicator(std::string_view outlet) override {
    return control(outlet);
  }
  std::shared_ptr<StatusIndicator> statusIndicator(std::string_view outlet) override {
    return control(outlet);
  }
  void setTimer(double interval, std::function<void()> called) override {
    EXPECT_EQ(interval, 1);
    tick = std::move(called);
  }
  void setAction(std::string_view button, Action action) override {
    actions_[std::string(button)] = std::move(action);
  }
  void setCloseRequested(std::function<void()> callback) override {
    close_requested = std::move(callback);
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
    display(label.text);
  }
  void addSubview(const PushButton& button) override {
    EXPECT_EQ(button.bezelStyle, BezelStyle::rounded);
    main_thread_.noteOnMain("button" + describe(button.frame) + " " + button.title);
    display(button.title);
    actions_[button.title] = button.action;
  }
  std::shared_ptr<StatusIndicator> growStatusIndicator() override {
    return has_room ? control("powerCycle") : nullptr;
  }
  void show() override {
    noteOnMain("shown");
    display("up");
  }
  void makeKeyAndOrderFront() override { noteOnMain("in front"); }
  void close() override {
    main_thread_.note(name_ + " closed");
    main_thread_.perform([self = shared_from_this()] {
      self->main_thread_.shown[self->name_].clear();
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
    line.append(" [").append(alert.firstButton).append("]");
    for (const std::string& button : alert.otherButtons)
      line.append(" [").append(button).append("]");
    main_thread_.note(line);
    main_thread_.perform([this, completion, alert] {
      main_thread_.shown["alert"] = alert.messageText + "|" + alert.informativeText;
      main_thread_.sheet = completion;
      main_thread_.sheet_came_unasked = alert.comesUnasked;
    });
  }
  void showText(const TextReport& report) override { main_thread_.shown["text"] = report.text; }

 private:
  void noteOnMain(const std::string& what) { main_thread_.noteOnMain(name_ + " " + what); }
  void display(const std::string& text) { main_thread_.shown[name_].append(text).append("|"); }
  std::shared_ptr<ScriptedControl> control(std::string_view outlet) {
    if (missing_outlets.contains(outlet)) return nullptr;
    auto& control = controls_[std::string(outlet)];
    if (!control) control = std::make_shared<ScriptedControl>(main_thread_, name_, outlet);
    return control;
  }

  ScriptedMainThread& main_thread_;
  const std::string name_;
  Rect frame_;
  const std::optional<Size> content_size_;
  std::map<std::string, Action> actions_;
  std::map<std::string, std::shared_ptr<ScriptedControl>> controls_;
  std::function<void()> will_disappear_;
};

class ScriptedApplication final : public Application,
                                  public Package,
                                  public Wakefulness,
                                  public DesktopNotifications,
                                  public ScriptedMainThread {
 public:
  explicit ScriptedApplication(Transcript& transcript) : ScriptedMainThread(transcript) {
    setApplication(this);
    setApplicationPackage(this);
    setWakefulness(this);
    setDesktopNotifications(this);
  }
  ~ScriptedApplication() override {
    EXPECT_FALSE(sheet) << "an alert that nobody answered";
    setApplication(nullptr);
    setApplicationPackage(nullptr);
    setWakefulness(nullptr);
    setDesktopNotifications(nullptr);
  }

  // Script it.
  std::shared_ptr<ScriptedWindow> main =
      std::make_shared<ScriptedWindow>(*this, "main", Rect{{100, 200}, {400, 300}});
  std::shared_ptr<ScriptedWindow> progress =
      std::make_shared<ScriptedWindow>(*this, "progress", Rect{{0, 0}, {300, 100}});
  std::optional<std::string> image_path = "/package/image.bin";
  FileContents image = FileError{"not set"};
  bool is_development_image = false;
  bool refuses_to_stay_awake = false;
  std::vector<std::function<void()>> refusals;  // one of each run, to be called later
  /// Called once a second modal run is up, that of the finish dialog.
  std::function<void()> during_finish_dialog = [] {};
  /// Answers the alert that is up.
  void answer(int response) {
    ASSERT_TRUE(sheet);
    shown["alert"].clear();
    std::exchange(sheet, nullptr)(response);
  }

  /// Returns once the progress window's modal run serves the main queue. Any thread.
  void waitUntilModal() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kPatience, [this] { return serving_; });
  }
  /// Runs steps until an alert is up.
  void runUntilAlert() {
    serveUntil([this] { return sheet != nullptr; });
  }
  /// Runs steps until a text beside the run shows what `is_so` wants of it.
  void runUntilShown(const std::string& outlet,
                     const std::function<bool(const std::string&)>& is_so) {
    serveUntil([&] { return is_so(shown[outlet]); });
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
  void showNotice(int, char**, const Alert& alert) override { noteOnMain(alert.messageText); }
  std::shared_ptr<ApplicationDelegate> delegate;
  std::shared_ptr<void> controller;

  std::shared_ptr<Window> mainWindow() override { return main; }
  void runModalForWindow(const std::shared_ptr<Window>& window) override {
    noteOnMain("modal run");
    if (window != progress) return during_finish_dialog();
    stopped_ = false;
    setServing(true);
    serveUntil([this] { return stopped_; });
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
  void activate(const std::string& token) override { noteOnMain("in front with " + token); }
  std::shared_ptr<void> beginActivity(std::string_view reason,
                                      std::function<void()> refused) override {
    noteOnMain("awake: " + std::string(reason));
    if (refuses_to_stay_awake) refused();
    refusals.push_back(std::move(refused));
    return {nullptr, [this](void*) { noteOnMain("may sleep"); }};
  }
  std::shared_ptr<void> show(const std::string& title, const std::string& text,
                             std::function<void(const std::string& token)> pressed) override {
    noteOnMain("notification: " + title + " | " + text);
    pressNotification = std::move(pressed);
    return {nullptr, [this](void*) { noteOnMain("notification gone"); }};
  }
  std::function<void(const std::string& token)> pressNotification;
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
    if (name == "development-image" && extension == "notice")
      return is_development_image ? std::optional<std::string>("/package/marker") : std::nullopt;
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
