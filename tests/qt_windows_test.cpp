// The Qt adapter on Qt's offscreen platform: modal runs and the main queue, alerts, what a
// person's keys and closing requests do, and where the windows are.
#include <gtest/gtest.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QLabel>
#include <QProgressBar>
#include <QScreen>
#include <QSessionManager>
#include <QTest>
#include <QTimer>
#include <clocale>
#include <thread>

#include "app_shell/qt/layouts.h"
#include "app_shell/qt/qt_toolkit.h"
#include "app_shell/qt/qt_window.h"
#include "support/named_cases.h"

namespace qm5::test {
namespace {

using Trace = std::vector<std::string>;

class QtWindows : public testing::Test {
 public:
  static void SetUpTestSuite() {
    static int count = 1;
    static std::string name = "qt_windows_test";
    static char* arguments[] = {name.data(), nullptr};
    // As in the program, it is never taken apart.
    [[maybe_unused]] static const auto* const kept = new QApplication(count, arguments);
  }

  std::shared_ptr<Window> mainWindow() {
    return std::make_shared<QtWindow>(queue_, makeMainLayout(), nullptr);
  }
  std::shared_ptr<Window> progressWindow() {
    return toolkit_.instantiateWindow("Main", "ProgressWindow");
  }
  std::shared_ptr<Window> finishDialog() {
    auto window = toolkit_.makeWindow({{0, 0}, {320, 280}}, WindowStyle::titled);
    window->setFrameOrigin({200, 200});
    window->addSubview(ImageView{{{107, 160}, {106, 100}}, "qm5_OK"});
    window->addSubview(Label{{{10, 120}, {300, 20}}, "Firmware update successful!", 16, false});
    const std::string text = "New version(QM5 v.4208)\nPlease power cycle your QM5 to apply\nit.";
    window->addSubview(Label{{{10, 45}, {300, 60}}, text, std::nullopt, true});
    const Action act = [this](Button*) { note("confirm"); };
    window->addSubview(
        PushButton{{{10, 10}, {300, 40}}, "Confirm & Exit", BezelStyle::rounded, act});
    return window;
  }

 protected:
  void note(const std::string& what) { heard_.push_back(what); }
  void ask(Window& window, const std::vector<std::string>& buttons) {
    window.beginSheet({"QM5 firmware update data error!",
                       "Please download this program\nand try again.", buttons},
                      [this](int response) { note(std::to_string(response)); });
    QTest::qWait(1);
  }
  static QWidget* show(Window& window) {
    window.show();
    QTest::qWait(1);
    return QApplication::activeWindow();
  }

  Trace heard_;
  MainQueue queue_;
  QtToolkit toolkit_;
};

TEST_F(QtWindows, TicksWhileItIsOnTheScreenOnly) {
  const auto window = progressWindow();
  int ticks = 0;
  window->setTimer(0.001, [&] { ++ticks; });
  QTest::qWait(20);
  EXPECT_EQ(ticks, 0);
  show(*window);
  EXPECT_TRUE(QTest::qWaitFor([&] { return ticks > 1; }));
  window->close();
  ticks = 0;
  QTest::qWait(20);
  EXPECT_EQ(ticks, 0);
}

// --- the main queue and modal runs ---

TEST_F(QtWindows, StepsKeepTheirOrderInAndOutOfNestedRuns) {
  toolkit_.stopModal();  // there is no run: none ends, now or later
  toolkit_.mainQueueAsync([&] {
    note("first");
    toolkit_.mainQueueAsync([&] { note("third"); });
    toolkit_.mainQueueAsync([&] {
      toolkit_.stopModal();
      toolkit_.stopModal();
    });
    toolkit_.runModalForWindow(progressWindow());
    note("inner run ended");
    // Had the second stop reached the outer run, this step would not be served in it.
    toolkit_.mainQueueAsync([&] {
      note("outer run goes on");
      toolkit_.stopModal();
    });
  });
  toolkit_.mainQueueAsync([&] { note("second"); });
  toolkit_.runModalForWindow(progressWindow());
  EXPECT_EQ(heard_, (Trace{"first", "second", "third", "inner run ended", "outer run goes on"}));
}

// --- keys, and windows that only the program closes ---

const std::vector<std::string> kQuestion = {"Quit", "Don't quit"};

struct Key {
  std::string name;
  std::shared_ptr<Window> (QtWindows::*window)();
  std::vector<std::string> alert;  // its buttons; none: the key goes to the window itself
  Qt::Key key;
  Trace heard;
};
QM5_PRINTS_NAME(Key)

class Keys : public QtWindows, public testing::WithParamInterface<Key> {};

TEST_P(Keys, AreHeardAndCloseNoWindow) {
  const auto window = (this->*GetParam().window)();
  for (const char* button : {"btnNext", "btnExit", "btnAbort"}) {
    window->setAction(button, [=, this](Button*) { note(button); });
  }
  QWidget* shown = show(*window);
  if (!GetParam().alert.empty()) ask(*window, GetParam().alert);
  QWidget* top = GetParam().alert.empty() ? shown : QApplication::activeModalWidget();
  // Space goes where the focus is, the others concern the whole window.
  QTest::keyClick(GetParam().key == Qt::Key_Space ? top->focusWidget() : top, GetParam().key);
  QTest::qWait(1);
  EXPECT_EQ(heard_, GetParam().heard);
  EXPECT_TRUE(shown->isVisible());
}

const auto kMain = &QtWindows::mainWindow;
const auto kProgress = &QtWindows::progressWindow;
const auto kFinish = &QtWindows::finishDialog;
INSTANTIATE_TEST_SUITE_P(
    Qt, Keys,
    testing::Values(Key{"main return", kMain, {}, Qt::Key_Return, {"btnNext"}},
                    Key{"main escape", kMain, {}, Qt::Key_Escape, {}},
                    Key{"progress return", kProgress, {}, Qt::Key_Return, {}},
                    Key{"progress space", kProgress, {}, Qt::Key_Space, {"btnAbort"}},
                    Key{"progress escape", kProgress, {}, Qt::Key_Escape, {}},
                    Key{"finish return", kFinish, {}, Qt::Key_Return, {"confirm"}},
                    Key{"finish escape", kFinish, {}, Qt::Key_Escape, {}},
                    Key{"question return", kProgress, kQuestion, Qt::Key_Return, {"1000"}},
                    Key{"question escape", kProgress, kQuestion, Qt::Key_Escape, {"1001"}},
                    Key{"notice escape", kProgress, {"OK"}, Qt::Key_Escape, {"1000"}}),
    named);

TEST_F(QtWindows, OnlyTheProgramClosesProgressAndFinishAndTheirAlertsGoUnanswered) {
  for (const auto& window : {progressWindow(), finishDialog()}) {
    QWidget* shown = show(*window);
    window->setViewWillDisappear([&] { note("gone"); });
    ask(*window, kQuestion);
    shown->close();
    EXPECT_TRUE(shown->isVisible());
    window->close();
    EXPECT_FALSE(shown->isVisible());
    EXPECT_EQ(std::exchange(heard_, {}), (Trace{std::to_string(kModalResponseAbort), "gone"}));
  }
}

// --- progress ---

// Counts how often widgets are painted.
class PaintCount : public QObject {
 public:
  int paints = 0;

 protected:
  bool eventFilter(QObject*, QEvent* event) override {
    paints += event->type() == QEvent::Paint ? 1 : 0;
    return false;
  }
};

TEST_F(QtWindows, ProgressIsDrawnEveryOtherFrameToItsLastValueAndHoldsNothingUp) {
  constexpr int kSteps = 300'000;
  constexpr int kRest = 32;  // milliseconds, two frames
  const auto window = progressWindow();
  const QWidget* shown = show(*window);
  auto* title = shown->findChild<QLabel*>("txtTitle2");
  auto* bar = shown->findChild<QProgressBar*>("progressBar");
  PaintCount title_paints;
  PaintCount bar_paints;
  title->installEventFilter(&title_paints);
  bar->installEventFilter(&bar_paints);
  int done = 0;
  int done_before_timer = kSteps;
  QElapsedTimer time;
  time.start();
  for (int i = 1; i <= kSteps; ++i) {
    toolkit_.mainQueueAsync([&, i] {
      window->textField("txtTitle2")->setStringValue(std::to_string(i));
      window->progressIndicator("progressBar")->setDoubleValue(i * 100.0 / kSteps);
      done = i;
    });
  }
  QTimer timer;
  timer.setSingleShot(true);
  timer.callOnTimeout([&] { done_before_timer = done; });
  timer.start(1);
  EXPECT_TRUE(QTest::qWaitFor([&] { return title->text() == QString::number(kSteps); }, 30'000));
  QTest::qWait(2 * kRest);
  const auto frames = static_cast<int>(time.elapsed() / kRest + 1);
  EXPECT_LT(done_before_timer, kSteps) << "the steps ran before all else";
  for (const int paints : {title_paints.paints, bar_paints.paints}) {
    EXPECT_GE(paints, 2);
    EXPECT_LE(paints, frames);
  }
  EXPECT_EQ(title->text(), QString::number(kSteps));
  EXPECT_EQ(bar->value(), bar->maximum());
}

// --- geometry ---

TEST_F(QtWindows, FramesCountFromTheLowerLeftOfTheScreen) {
  const auto window = progressWindow();
  const QWidget* shown = show(*window);
  window->setFrameOrigin({30, 0});
  QTest::qWait(1);
  const QRect frame = shown->frameGeometry();
  EXPECT_EQ(frame.bottomLeft(),
            QGuiApplication::primaryScreen()->geometry().bottomLeft() + QPoint(30, 0));
  EXPECT_EQ(window->frame().origin.y, 0);
}

TEST_F(QtWindows, HeadlineAndSignGrowWithTheFont) {
  const auto window = mainWindow();
  const QWidget* shown = show(*window);
  const auto sizes = [&] {
    QTest::qWait(1);
    const auto* box = shown->findChild<QWidget*>("busStatus");
    return std::pair(shown->findChild<QLabel*>("txtHeadline")->height(),
                     box->findChildren<QLabel*>().first()->height());
  };
  const auto before = sizes();
  QFont font = QApplication::font();
  font.setPointSizeF(2 * font.pointSizeF());
  QApplication::setFont(font);
  const auto after = sizes();
  EXPECT_NEAR(after.first, 2 * before.first, 2);
  EXPECT_NEAR(after.second, 2 * before.second, 2);
}

// --- the application's own end ---

struct TellingDelegate : ApplicationDelegate {
  void applicationDidFinishLaunching() override {}
  void applicationWillTerminate() override { std::fputs("will terminate", stderr); }
  bool applicationSupportsSecureRestorableState() override { return true; }
  bool applicationShouldTerminateAfterLastWindowClosed() override { return true; }
  // The first time it refuses.
  bool applicationShouldTerminate(std::function<void()>) override {
    std::fputs("asked, ", stderr);
    return std::exchange(agrees_, true);
  }
  bool agrees_ = false;
};

// Runs the application on a toolkit of its own, with a thread at work, and has `end` end it.
void runUntil(void (*end)(QtToolkit&)) {
  QtToolkit toolkit;
  std::thread([] { std::this_thread::sleep_for(std::chrono::minutes(5)); }).detach();
  const auto make_controller = [&](const std::shared_ptr<Window>&) {
    toolkit.mainQueueAsync([&] {
      if (std::localeconv()->decimal_point != std::string(".")) std::abort();
      if (std::setlocale(LC_MESSAGES, nullptr) != std::string("C")) std::abort();
      end(toolkit);
    });
    return std::make_shared<int>();
  };
  std::string name = "qm5-updater";
  char* arguments[] = {name.data(), nullptr};
  toolkit.applicationMain(1, arguments,
                          {[] { return std::make_shared<TellingDelegate>(); }, make_controller});
}

TEST(QtApplicationDeathTest, EndsWithItsLastWindowAndWhenToldTo) {
  std::setlocale(LC_ALL, "");
  ASSERT_STREQ(std::localeconv()->decimal_point, ",") << "the person's own locale";
  const auto ended = testing::ExitedWithCode(0);
  EXPECT_EXIT(runUntil([](auto&) { QApplication::closeAllWindows(); }), ended, "will terminate");
  EXPECT_EXIT(runUntil([](auto&) { QApplication::quit(); }), ended, "will terminate");
  const auto session_then_signal = [](QtToolkit& toolkit) {
    emit qApp->commitDataRequest(*qApp->findChild<QSessionManager*>());
    toolkit.requestTermination([] {});
  };
  EXPECT_EXIT(runUntil(session_then_signal), ended, "asked, asked, will terminate");
}

}  // namespace
}  // namespace qm5::test
