// The program with its real windows over the software QM5, and a person at them: a thread of the
// test. Time is virtual. Whatever the person does or asks happens once the windows have nothing
// left to do, and the update is held where the test says, so a case goes the same way each time.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <QAbstractButton>
#include <QApplication>
#include <QKeySequence>
#include <QLabel>
#include <QTest>
#include <atomic>
#include <cstdio>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app_shell/qt/layouts.h"
#include "app_shell/qt/qt_application.h"
#include "computer/package/file_package.h"
#include "simulator/device/faulty_qm5.h"
#include "support/effort.h"
#include "support/virtual_event_loop.h"
#include "support/whole_app.h"

namespace qm5::test {

/// What is on the screen, by what it lets a person do.
enum Shown : unsigned {
  kProgress = 1,
  kQuestion = 2,
  kAlert = 4,
  kFinish = 8,
  kDetails = 16,
  kSave = 32,    // asks for the file that the details go to
  kFailed = 64,  // the main window, when it tells of a failed run
  kEnded = 128   // nothing: the program has ended
};

/// A key as a person presses it.
struct Press {
  Qt::Key key;
  int tabs = 0;         // pressed before it
  bool held = false;    // until it has repeated itself
  QString button = {};  // with this title: its mnemonic, with Alt, in place of Key_Alt
  int times = 1;
};
/// Stand for the close request of the window on top or of the main one, whatever it comes from, and
/// for a click on the button.
inline constexpr Qt::Key kCloses = Qt::Key_F4, kClosesMain = Qt::Key_F5, kClicks = Qt::Key_F6;

/// Where the update's thread is to be held.
struct Stop {
  std::size_t request = std::numeric_limits<std::size_t>::max();  // that one, or any after it
  bool sleep = false;                                             // or the next sleep
};

class Desk {
 public:
  /// A case, and what the person does in it.
  struct Case {
    std::string name;
    bool has_image;
    std::function<void(Desk&)> play;
  };
  using CaseOf = std::function<Case(std::size_t)>;
  /// Calls its argument before it starts a thread.
  using Program = std::function<void(Desk&, const std::function<void()>& begin)>;

  /// Tries each of `count` cases in a process of its own, which a hang does not outlive. Returns
  /// whether all is well.
  static bool tryAll(const std::string& what, std::size_t count, const CaseOf& caseOf,
                     const Program& program = wholeProgram) {
    std::fflush(nullptr);
    if (const pid_t process = fork(); process != 0) {
      int status = 0;
      waitpid(process, &status, 0);
      return status == 0;
    }
    Desk& desk = *new Desk;  // until the process ends
    program(desk, [&] {
      const Case tried = caseOf(forkEach(what, count, caseOf));
      desk.application.has_image = tried.has_image;
      desk.person_ = std::thread([&desk, play = tried.play] {
        play(desk);
        std::_Exit(testing::Test::HasFailure());
      });
    });
    desk.application.ended = true;
    while (true) desk.loop_.processEvents(QEventLoop::WaitForMoreEvents);
  }
  /// The updater, from its entry point on.
  static void wholeProgram(Desk& desk, const std::function<void()>& begin) {
    MainStoryboard storyboard = mainStoryboard();
    storyboard.makeMainController = [&, make = storyboard.makeMainController](const auto& window) {
      // Fonts are loaded once for all cases. To draw more than texts may start threads of Qt's.
      const auto layout = makeProgressLayout(nullptr);
      layout->adjustSize();
      for (QLabel* label : layout->template findChildren<QLabel*>()) label->grab();
      begin();
      return make(window);
    };
    desk.application.applicationMain(1, arguments(), storyboard);
  }
  static char** arguments() {
    static char name[] = "qm5-updater";
    static char* arguments[] = {name, nullptr};
    return arguments;
  }

  // The rest is for the person.

  /// Plugs in a new QM5, once the program watches the bus.
  void plug(const Qm5Model::Options& options) {
    qm5.emplace(Qm5Model(options));
    qm5->setObserver([this](const RequestRecord&) { waitAt(false); });
    settle();  // by now the Driver listens
    bus.waitUntilWatched();
    bus.plug(*qm5);
  }

  template <typename Question>
  auto ask(Question question) {
    std::optional<decltype(question())> answer;
    std::unique_lock lock(mutex_);
    loop_.post([&] {
      auto found = question();
      const std::lock_guard answer_lock(mutex_);
      answer = std::move(found);
      changed_.notify_all();
    });
    changed_.wait(lock, [&] { return answer.has_value(); });
    return *answer;
  }
  unsigned shown() {
    if (application.ended) return kEnded;
    return ask([] {
      unsigned windows = 0;
      for (const auto& [title, window] : {std::pair{"Abort", kProgress},
                                          {"Quit", kQuestion},
                                          {"OK", kAlert},
                                          {"Copy", kDetails},
                                          {"Confirm & Exit", kFinish},
                                          {"Cancel", kSave},
                                          {"Details…", kFailed}})
        windows |= buttonTitled(title) ? window : 0U;
      return windows;
    });
  }
  /// The title of the button that has the focus; empty when it is elsewhere.
  QString focus() {
    return ask([] {
      const auto* button = qobject_cast<QAbstractButton*>(QApplication::focusWidget());
      return button ? titleOf(*button) : QString();
    });
  }
  /// All that can be read in the windows.
  std::string texts() {
    return ask([] {
      std::string texts;
      for (const QLabel* label : visible<QLabel>()) texts += label->text().toStdString() + "\n";
      return texts;
    });
  }
  /// Whether the window on top has the keyboard and a button that can be pressed.
  bool hasWayOn() {
    return ask([] {
      const QWidget* const top = QApplication::activeWindow();
      const QWidget* const modal = QApplication::activeModalWidget();
      const QWidget* const focus = QApplication::focusWidget();
      const auto buttons = visible<QAbstractButton>();
      return focus && focus->window() == top && (!modal || modal == top) &&
             std::any_of(buttons.begin(), buttons.end(), [top](const QAbstractButton* button) {
               return button->window() == top && button->isEnabled();
             });
    });
  }

  void send(const Press& press) {
    for (int tab = 0; tab < press.tabs; ++tab) sendKey(Qt::Key_Tab);
    if (press.key == kCloses || press.key == kClosesMain) {
      act([&] {
        QWidget* closed = QApplication::activeWindow();
        while (press.key == kClosesMain && closed->parentWidget()) closed = closed->parentWidget();
        QWindowSystemInterface::handleCloseEvent(closed->windowHandle());
      });
    } else if (press.key == kClicks) {
      act([&] { QTest::mouseClick(buttonTitled(press.button), Qt::LeftButton); });
    } else if (press.key == Qt::Key_Alt) {
      const QKeyCombination keys =
          ask([&] { return QKeySequence::mnemonic(buttonTitled(press.button)->text())[0]; });
      sendKey(keys.key(), keys.keyboardModifiers(), press.held ? 5 : 0);
    } else {
      sendKey(press.key, Qt::NoModifier, press.held ? 5 : 0);
    }
  }
  void click(const QString& title) {
    act([&] { buttonTitled(title)->click(); });
  }
  /// As the thread that waits for signals delivers one: the second one ends the program.
  void signal() {
    if (is_undecided.exchange(true)) application.ended = true;
    application.requestTermination([this] { is_undecided = false; });
    settle();
  }
  void letASecondPass() { clock.sleep(1.1); }

  /// Has the update held there from now on.
  void stopAt(Stop stop) {
    const std::lock_guard lock(mutex_);
    stop_ = stop;
  }
  /// Lets it go on from where it is held, and returns when it is held again or has ended.
  void goOn(Stop next) {
    {
      const std::lock_guard lock(mutex_);
      stop_ = next;
      is_held_ = false;
      changed_.notify_all();
    }
    awaitStop();
  }
  void awaitStop() {
    const auto is_held = [this] {
      const std::lock_guard lock(mutex_);
      return is_held_;
    };
    while ((shown() & kProgress) != 0 && !is_held()) std::this_thread::yield();
    settle();
  }

  /// The production application, but for its image, sleep, and the end of the process.
  struct Watched final : QtApplication, FilePackage, Wakefulness, DesktopNotifications {
    FileContents readFile(const std::string&) override {
      return has_image ? FileContents(smallImage()) : FileError{"missing"};
    }
    std::shared_ptr<void> beginActivity(std::string_view, std::function<void()>) override {
      return nullptr;
    }
    std::shared_ptr<void> show(const std::string&, const std::string&,
                               std::function<void(const std::string&)>) override {
      return nullptr;
    }
    void terminate() override { ended = true; }
    bool has_image = true;
    std::atomic<bool> ended = false;
  };

  Transcript transcript;
  VirtualClock clock;
  DirectBus bus;
  std::optional<FaultyQm5> qm5;
  Watched application;
  std::atomic<bool> is_undecided = false;  // a signal was delivered, and not declined yet

 private:
  Desk() {
    setUSBRegistry(&bus);
    setApplication(&application);
    setApplicationPackage(&application);
    setWakefulness(&application);
    setDesktopNotifications(&application);
    qInstallMessageHandler(nullptr);  // the program's own one starts a thread
    QCoreApplication::setEventDispatcher(&loop_);
    clock.during_sleep = [this](double seconds) {
      loop_.wakeUp();
      if (std::this_thread::get_id() == person_.get_id()) return;
      // A job's first second is enough for the progress window to come up.
      while (seconds == 1.0 && shown() == 0) std::this_thread::yield();
      waitAt(true);
    };
  }
  // Returns in each process that it forks off, with the number of its case, and nowhere else.
  static std::size_t forkEach(const std::string& what, std::size_t count, const CaseOf& caseOf) {
    const std::size_t at_once = effort(1U, std::thread::hardware_concurrency());
    std::map<pid_t, std::size_t> running;
    std::size_t wrong = 0;
    // A fork copies no thread, and what one has locked at that moment stays locked in the copy.
    if (!isOnlyThread()) fatal("a thread was started before the cases");
    for (std::size_t started = 0; started < count || !running.empty();) {
      if (started < count && running.size() < at_once) {
        std::fflush(nullptr);
        const pid_t process = fork();
        if (process == 0) {
          alarm(kMeasurable && !isLong() ? 60 : 300);
          return started;
        }
        running[process] = started++;
        continue;
      }
      int status = 0;
      const std::size_t ended = running.extract(wait(&status)).mapped();
      if (status == 0) continue;
      ++wrong;
      std::cout << "wrong: " << caseOf(ended).name << std::endl;
    }
    report(what + ": " + std::to_string(count) + " tried, " + std::to_string(wrong) + " wrong");
    std::_Exit(wrong > 0);
  }

  template <typename Widget>
  static std::vector<Widget*> visible() {
    std::vector<Widget*> found;
    for (QWidget* widget : QApplication::allWidgets()) {
      auto* const kept = qobject_cast<Widget*>(widget);
      if (kept && kept->isVisible()) found.push_back(kept);
    }
    return found;
  }
  static QString titleOf(const QAbstractButton& button) {
    return button.text().replace("&&", "+").remove('&').replace('+', '&');
  }
  static QAbstractButton* buttonTitled(const QString& title) {
    for (QAbstractButton* button : visible<QAbstractButton>()) {
      if (titleOf(*button) == title) return button;
    }
    return nullptr;
  }

  // Has it done, which may take as long as a modal run, and returns when nothing else is left to
  // do but that.
  void act(VirtualEventLoop::Step action) {
    loop_.post(std::move(action));
    settle();
  }
  // Does what a window manager does, which the offscreen platform lacks: a window that goes leaves
  // the keyboard to the one below it.
  void settle() {
    ask([] { return 0; });
    ask([] {
      QWidget* top = QApplication::activeModalWidget();
      if (!top && !visible<NativeWindow>().empty()) top = visible<NativeWindow>()[0];
      if (!QGuiApplication::focusWindow() && top) top->activateWindow();
      return 0;
    });
    ask([] { return 0; });
  }
  // As the platform delivers it, to the window that has the keyboard.
  void sendKey(Qt::Key key, Qt::KeyboardModifiers modifiers = {}, int repetitions = 0) {
    const auto deliver = [=, this](QEvent::Type type, bool repeats) {
      act([=] {
        QWindowSystemInterface::handleKeyEvent(nullptr, type, key, modifiers, QString(), repeats);
      });
    };
    deliver(QEvent::KeyPress, false);
    for (; repetitions > 0; --repetitions) {
      deliver(QEvent::KeyRelease, true);
      deliver(QEvent::KeyPress, true);
    }
    deliver(QEvent::KeyRelease, false);
  }
  // On the update's thread.
  void waitAt(bool asleep) {
    std::unique_lock lock(mutex_);
    if (asleep ? !stop_.sleep : qm5->requestCount() < stop_.request) return;
    is_held_ = true;
    changed_.wait(lock, [this] { return !is_held_; });
  }

  QObject owner_;  // or the QApplication would own the loop, which outlives it
  VirtualEventLoop loop_{&owner_};
  std::thread person_;
  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  Stop stop_;
  bool is_held_ = false;
};

}  // namespace qm5::test
