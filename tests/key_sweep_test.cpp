// Every key in every state of the windows, and many at random: no key, held key, closing of a
// window or signal ends an update but a deliberate "Quit", and no window is left without a way on.
// The real windows on Qt's offscreen platform, over the software QM5, in virtual time.
#include <gtest/gtest.h>
#include <qpa/qwindowsysteminterface.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QAbstractButton>
#include <QApplication>
#include <QPushButton>
#include <QTest>
#include <condition_variable>
#include <random>
#include <set>
#include <thread>

#include "app_shell/main_storyboard.h"
#include "app_shell/package/file_package.h"
#include "app_shell/qt/qt_application.h"
#include "device_link/driver.h"
#include "simulator/device/faulty_qm5.h"
#include "simulator/direct_bus/direct_bus.h"
#include "support/effort.h"
#include "support/named_cases.h"
#include "support/transcript.h"
#include "support/virtual_clock.h"
#include "support/whole_app.h"

namespace qm5::test {
namespace {

/// Holds the job's thread at a point of the run until it is let go on.
class Gate {
 public:
  void arm() { set(true, false); }
  void open() { set(false, false); }
  void waitHere() {
    std::unique_lock lock(mutex_);
    if (!armed_) return;
    reached_ = true;
    changed_.notify_all();
    changed_.wait(lock, [this] { return !armed_; });
  }
  void awaitReached() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return reached_; });
  }

 private:
  void set(bool armed, bool reached) {
    const std::lock_guard lock(mutex_);
    armed_ = armed;
    reached_ = reached;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  bool armed_ = false;
  bool reached_ = false;
};

/// The production application, but for its image, sleep, and the end of the process.
class Watched final : public QtApplication, public FilePackage, public Wakefulness {
 public:
  FileContents readFile(const std::string&) override { return image; }
  std::shared_ptr<void> beginActivity(std::string_view, std::function<void()>) override {
    return nullptr;
  }
  void terminate() override { ended = true; }
  FileContents image = FileError{"missing"};
  std::atomic<bool> ended = false;
};

/// Windows by what they let a person do.
enum Shown : unsigned { kProgress = 1, kQuestion = 2, kAlert = 4, kFinish = 8, kDetails = 16 };

/// What a key has done.
enum class Effect { nothing, starts, asks, answers, quits };

/// A press of a key, with what comes before it.
struct Press {
  std::string name;
  Qt::Key key;
  int tabs = 0;  // before it
  bool held = false;
  QString mnemonic = {};  // of the button with this title: with Alt
};

const std::vector<Press> kPresses = {{"Space", Qt::Key_Space},
                                     {"Return", Qt::Key_Return},
                                     {"Enter", Qt::Key_Enter},
                                     {"Escape", Qt::Key_Escape},
                                     {"Tab and Space", Qt::Key_Space, 1},
                                     {"2 Tabs and Space", Qt::Key_Space, 2},
                                     {"3 Tabs and Space", Qt::Key_Space, 3},
                                     {"a held Space", Qt::Key_Space, 0, true},
                                     {"a held Return", Qt::Key_Return, 0, true},
                                     {"a held Enter", Qt::Key_Enter, 0, true},
                                     {"closing the window", Qt::Key_F4}};

/// How to get into a state, from the main window at rest.
struct State {
  std::string_view name;
  unsigned shown;              // the windows above the main one
  std::size_t held_at = 0;     // the request at which the job is held
  bool held_in_sleep = false;  // or the next sleep, its first second included
  std::vector<QString> presses = {"Next"};
  bool by_signal = false;  // a signal then wants the program to end
  bool early = false;      // its first half second, in a window that came up by itself
  std::optional<Fault> fault = {};
  std::uint16_t version = 0x4201;
  bool has_image = true;
  bool is_plugged = true;
};
QM5_PRINTS_NAME(State)

bool isRunning(const State& state) {
  return state.held_at != 0 || state.held_in_sleep;
}

constexpr std::size_t kWriting = 40;    // a request in the payload
constexpr std::size_t kChecking = 120;  // and one among the secure blocks
const Fault kRefused = {FaultKind::stall, "SFWi"};
const Fault kGone = {.kind = FaultKind::unplug, .number = kWriting};

const std::vector<State> kStates = {
    {.name = "idle", .shown = 0, .presses = {}},
    {.name = "first second", .shown = kProgress, .held_in_sleep = true},
    {.name = "writing", .shown = kProgress, .held_at = kWriting},
    {.name = "checking", .shown = kProgress, .held_at = kChecking},
    {.name = "QM5 gone",
     .shown = kProgress,
     .held_at = kWriting,
     .held_in_sleep = true,
     .fault = kGone},
    {.name = "question",
     .shown = kProgress | kQuestion,
     .held_at = kWriting,
     .presses = {"Next", "Abort"}},
    {.name = "question by a signal",
     .shown = kProgress | kQuestion,
     .held_at = kWriting,
     .by_signal = true},
    {.name = "question just come up by a signal",
     .shown = kProgress | kQuestion,
     .held_at = kWriting,
     .by_signal = true,
     .early = true},
    {.name = "question before exit", .shown = kQuestion, .presses = {"Exit"}},
    {.name = "no QM5", .shown = kAlert, .is_plugged = false},
    {.name = "no version", .shown = kAlert, .fault = Fault{FaultKind::stall, "", 1}},
    {.name = "up to date", .shown = kAlert, .version = 0x4208},
    {.name = "no image", .shown = kAlert, .has_image = false},
    {.name = "failed", .shown = kAlert, .fault = kRefused},
    {.name = "just failed", .shown = kAlert, .early = true, .fault = kRefused},
    {.name = "details",
     .shown = kDetails,
     .presses = {"Next", "OK", "Details…"},
     .fault = kRefused},
    {.name = "finished", .shown = kFinish},
    {.name = "just finished", .shown = kFinish, .early = true}};

/// The rules: what a press may do. Only a deliberate one may end an update.
std::set<Effect> allowed(const State& state, const Press& press) {
  using enum Effect;
  const bool closes = press.key == Qt::Key_F4;
  if (state.early) return closes ? std::set{nothing, answers} : std::set{nothing};
  const bool escapes = press.key == Qt::Key_Escape;
  if ((state.shown & kQuestion) != 0) {
    if (press.mnemonic == "Quit") return {quits};
    return press.tabs > 0 ? std::set{answers, quits} : std::set{answers};
  }
  if (state.shown == kAlert) return {answers};
  if (state.shown == kDetails) return {nothing, answers};
  if (state.shown == kFinish) return {escapes || closes ? nothing : quits};
  if (state.shown == kProgress) {
    if (closes || press.mnemonic == "Abort") return {asks};
    return press.tabs > 0 ? std::set{nothing, asks} : std::set{nothing};
  }
  if (closes) return {quits};  // nothing is under way
  if (escapes) return {nothing};
  if (press.mnemonic == "Exit") return {asks};
  return press.tabs > 0 ? std::set{starts, asks} : std::set{starts};
}

/// All presses, those of the mnemonics of the window on top included.
std::vector<Press> pressesIn(unsigned shown) {
  std::vector<QString> titles = {"Next", "Exit"};
  if ((shown & kQuestion) != 0) {
    titles = {"Quit", "Don't quit"};
  } else if (shown != 0) {
    titles = {shown == kProgress  ? "Abort"
              : shown == kAlert   ? "OK"
              : shown == kDetails ? "Close"
                                  : ""};
  }
  std::vector<Press> presses = kPresses;
  for (const QString& title : titles) {
    if (!title.isEmpty())
      presses.push_back(
          {"Alt and a letter of " + title.toStdString(), Qt::Key_unknown, 0, false, title});
  }
  return presses;
}

/// How the run goes on once the keys have been pressed.
enum class Then { succeeds, fails, unplugged };

/// The program with its windows; a thread of the test plays the person.
class Desk : public testing::Test {
 protected:
  Desk() {
    clock.during_sleep = [this](double seconds) {
      if (std::this_thread::get_id() == person_.get_id()) return;
      // A job's first second is enough for the progress window to come up.
      if (seconds == 1.0) eventually([] { return shown() != 0; });
      if (job_sleeps) job.waitHere();
    };
  }

  // What `question` answers on the main thread, in whatever loop is innermost there.
  template <typename Question>
  static auto onMain([[maybe_unused]] Question question) {
    decltype(question()) answer{};
#ifndef __clang_analyzer__  // It does not see that Qt frees what it makes of the question.
    QMetaObject::invokeMethod(
        qApp, [&] { answer = question(); }, Qt::BlockingQueuedConnection);
#endif
    return answer;
  }
  // Has `action` done there, which may take as long as a modal run.
  template <typename Action>
  static void post([[maybe_unused]] Action action) {
#ifndef __clang_analyzer__
    QMetaObject::invokeMethod(qApp, action, Qt::QueuedConnection);
#endif
  }
  template <typename Condition>
  static bool eventually(Condition condition) {
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
         !onMain(condition); std::this_thread::yield()) {
      if (std::chrono::steady_clock::now() > end) return false;
    }
    return true;
  }

  static QAbstractButton* button(const QString& title) {
    for (QWidget* widget : QApplication::allWidgets()) {
      auto* found = qobject_cast<QAbstractButton*>(widget);
      if (found && found->text().remove('&') == title && found->isVisible() &&
          found->window()->windowHandle()->isExposed())
        return found;
    }
    return nullptr;
  }
  static unsigned shown() {
    const std::pair<const char*, Shown> marks[] = {{"Abort", kProgress},
                                                   {"Quit", kQuestion},
                                                   {"OK", kAlert},
                                                   {"Confirm  Exit", kFinish},
                                                   {"Copy", kDetails}};
    unsigned windows = 0;
    for (const auto& [title, window] : marks) windows |= button(title) ? window : 0U;
    return windows;
  }
  bool awaitShown(unsigned windows) {
    return eventually([=] { return shown() == windows; });
  }
  static void press(const QString& title) {
    ASSERT_TRUE(eventually([&] {
      const auto* found = button(title);
      return found && found->isEnabled();
    })) << title.toStdString();
    post([title] { button(title)->click(); });
  }
  void letASecondPass() {
    clock.sleep(1.1);
  }

  // As the platform delivers it, to the window that has the keyboard.
  static void sendKey(QEvent::Type type, Qt::Key key, bool repeats = false) {
    post([=] {
      if (QGuiApplication::focusWindow() == nullptr) return;  // its window has gone
      QWindowSystemInterface::handleKeyEvent(QGuiApplication::focusWindow(), type, key,
                                             Qt::NoModifier, QString(), repeats);
      QWindowSystemInterface::sendWindowSystemEvents(QEventLoop::AllEvents);
    });
    onMain([] { return 0; });
  }
  static void send(const Press& press) {
    for (int tab = 0; tab < press.tabs; ++tab) {
      sendKey(QEvent::KeyPress, Qt::Key_Tab);
      sendKey(QEvent::KeyRelease, Qt::Key_Tab);
    }
    if (press.key == Qt::Key_F4) {
      post([] {
        if (QWidget* const top = QApplication::activeWindow()) top->close();
      });
    } else if (!press.mnemonic.isEmpty()) {
      post([title = press.mnemonic] {
        const QAbstractButton* const named = button(title);
        QWidget* const top = QApplication::activeWindow();
        if (named == nullptr || top == nullptr) return;  // an outcome has taken the window away
        const QKeyCombination keys = QKeySequence::mnemonic(named->text())[0];
        QTest::keyClick(top, keys.key(), keys.keyboardModifiers());
      });
    } else {
      sendKey(QEvent::KeyPress, press.key);
      for (int repeat = 0; press.held && repeat < 5; ++repeat) {
        sendKey(QEvent::KeyRelease, press.key, true);
        sendKey(QEvent::KeyPress, press.key, true);
      }
      sendKey(QEvent::KeyRelease, press.key);
    }
    eventually(noButtonIsDown);  // a mnemonic holds its button down for a moment
  }
  static bool noButtonIsDown() {
    const QWidgetList widgets = QApplication::allWidgets();
    return std::none_of(widgets.begin(), widgets.end(), [](QWidget* widget) {
      const auto* found = qobject_cast<QPushButton*>(widget);
      return found && found->isDown();
    });
  }

  // A process that was forked off knows of the failures before it, too.
  static int faults() {
    return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
  }

  // Runs the program while `person` does things, on a thread of his own.
  void run(const std::function<void()>& person) {
    setUSBRegistry(&bus);
    setApplication(&application);
    setApplicationPackage(&application);
    setWakefulness(&application);
    static std::string name = "qm5-updater";
    static char* arguments[] = {name.data(), nullptr};
    MainStoryboard storyboard = mainStoryboard();
    storyboard.makeMainController = [&, make = storyboard.makeMainController](const auto& window) {
      post([&] {
        person_ = std::thread([&] {
          bus.waitUntilWatched();
          person();
          std::_Exit(faults() > faults_before_ ? 1 : 0);
        });
      });
      return make(window);
    };
    application.applicationMain(1, arguments, storyboard);
  }

  // --- states ---

  void reach(const State& state) {
    job.open();
    const Qm5Model::Options options = {.version = state.version};
    qm5.emplace(Qm5Model(options));
    qm5->setObserver([this, &state](const RequestRecord&) {
      if (state.held_at != 0 && qm5->requestCount() == state.held_at) job.waitHere();
    });
    if (state.fault) qm5->addFault(*state.fault);
    if (state.is_plugged) {
      bus.plug(*qm5);
      ASSERT_TRUE(eventually([] { return global_driver->deviceInfo().has_value(); }));
    }
    job_sleeps = state.held_in_sleep;
    if (state.shown == 0) job_sleeps = true;  // a press may start a run, which then stays
    if (isRunning(state) || state.shown == 0) job.arm();
    for (const QString& title : state.presses) {
      letASecondPass();
      press(title);
    }
    if (isRunning(state)) job.awaitReached();
    if (state.by_signal) application.requestTermination([] {});
    ASSERT_TRUE(awaitShown(state.shown)) << state.name;
    if (!state.early) letASecondPass();
    ASSERT_TRUE(eventually([] { return QGuiApplication::focusWindow() != nullptr; }));
  }
  Effect effectOf(const Press& press, unsigned before) {
    send(press);
    const unsigned after = onMain(shown);
    if (application.ended) return Effect::quits;
    if ((after & ~before & kQuestion) != 0) return Effect::asks;
    if ((after & ~before & kProgress) != 0) return Effect::starts;
    return (before & ~after) != 0 ? Effect::answers : Effect::nothing;
  }
  /// Lets a run end as told; the windows then show its outcome and a way on.
  void goOn(Then then) {
    const Fault next{.kind = then == Then::fails ? FaultKind::stall_on : FaultKind::unplug,
                     .number = qm5->requestCount() + 1};
    if (then != Then::succeeds) qm5->addFault(next);
    job_sleeps = false;
    job.open();
  }
  /// From an outcome's alert back to the main window at rest, where Return presses Next.
  void acknowledge() {
    letASecondPass();
    press("OK");
    EXPECT_TRUE(eventually([] {
      return button("Next")->window()->focusWidget() == button("Next") &&
             button("Exit")->isEnabled();
    }));
  }

  Transcript transcript;
  VirtualClock clock;
  Gate job;                              // holds it
  std::atomic<bool> job_sleeps = false;  // where it is held, beside the request
  DirectBus bus;
  std::optional<FaultyQm5> qm5;
  Watched application;

 private:
  const int faults_before_ = faults();
  std::thread person_;
};

/// Runs `child` in a process of its own, which a hang does not outlive, and returns how that ended:
/// 0 when it found no fault.
int inOwnProcess(const std::function<void()>& child) {
  std::fflush(nullptr);
  const pid_t process = fork();
  if (process == 0) {
    alarm(20);
    child();
    std::_Exit(1);
  }
  int status = 0;
  waitpid(process, &status, 0);
  return status;
}

class KeySweep : public testing::TestWithParam<State> {};

struct OneCase : Desk {
  void TestBody() override {}
  // Never returns: the process ends with what was found.
  void tryOut(const State& state, const Press& pressed, Then then) {
    if (state.has_image) application.image = smallImage();
    run([&] {
      reach(state);
      const Effect effect = effectOf(pressed, state.shown);
      EXPECT_TRUE(allowed(state, pressed).contains(effect))
          << pressed.name << " has done " << static_cast<int>(effect);
      if (!isRunning(state) || effect == Effect::quits) return;
      goOn(then);
      const bool good = then == Then::succeeds && !state.fault;
      EXPECT_TRUE(awaitShown(good ? kFinish : kAlert)) << "no way on after " << pressed.name;
      if (!good) acknowledge();
    });
  }
};

TEST_P(KeySweep, EndsNoUpdateButByADeliberateQuitAndLeavesAWayOn) {
  const State& state = GetParam();
  std::size_t tried = 0;
  for (const Press& press : pressesIn(state.shown)) {
    for (const Then then : {Then::succeeds, Then::fails, Then::unplugged}) {
      if (then != Then::succeeds && !isRunning(state)) continue;
      ++tried;
      EXPECT_EQ(inOwnProcess([&] { OneCase().tryOut(state, press, then); }), 0)
          << press.name << ", then " << static_cast<int>(then);
    }
  }
  report("keys, " + std::string(state.name) + ": " + std::to_string(tried) + " tried");
}

INSTANTIATE_TEST_SUITE_P(States, KeySweep, testing::ValuesIn(kStates), named);

// Keys, closings, signals, unplugs and plugs in any order, from any state on.
struct OneSchedule : Desk {
  void TestBody() override {}
  void tryOut(unsigned schedule) {
    random_.seed(schedule);
    const State& state = kStates[random_() % kStates.size()];
    if (state.has_image) application.image = smallImage();
    run([&] {
      reach(state);
      for (auto acts = random_() % 6; acts > 0 && !application.ended; --acts) act();
      EXPECT_TRUE(deliberate_ || !application.ended);
      if (application.ended) return;
      goOn(Then::succeeds);
      EXPECT_TRUE(eventually([] { return (shown() & (kProgress | kQuestion)) != kProgress; }));
    });
  }
  void act() {
    const unsigned windows = onMain(shown);
    const bool is_idle = (windows & kProgress) == 0;
    switch (random_() % 8) {
      case 0:
        return bus.unplug();
      case 1:
        return bus.plug(*qm5);
      case 2:
        deliberate_ |= is_idle;
        return application.requestTermination([] {});
      case 3:
        return letASecondPass();
      default:
        break;
    }
    const std::vector<Press> presses = pressesIn(windows);
    const Press& press = presses[random_() % presses.size()];
    // Once the person has moved to a button of the question, its press is meant.
    const bool meant = press.tabs > 0 || press.mnemonic == "Quit";
    deliberate_ |= is_idle || ((windows & kQuestion) != 0 && meant);
    send(press);
  }

 private:
  std::mt19937 random_;
  bool deliberate_ = false;
};

TEST(KeySchedules, EndNoUpdateUnlessSomebodyMeantIt) {
  const unsigned schedules = effort(60U, 20'000U);
  unsigned wrong = 0;
  for (unsigned schedule = 0; schedule < schedules; ++schedule) {
    const int ended = inOwnProcess([&] { OneSchedule().tryOut(schedule); });
    EXPECT_EQ(ended, 0) << "schedule " << schedule;
    wrong += ended == 0 ? 0 : 1;
  }
  report("keys, signals and faults at random: " + std::to_string(schedules) + " schedules, " +
         std::to_string(wrong) + " wrong");
}

}  // namespace
}  // namespace qm5::test
