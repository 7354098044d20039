// The Qt adapter on Qt's offscreen platform: what needs no program behind the windows. What keys
// and closing requests do, the key sweep shows.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <private/qguiapplication_p.h>
#include <private/qsessionmanager_p.h>
#include <qpa/qplatformsessionmanager.h>
#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QElapsedTimer>
#include <QFile>
#include <QFileDialog>
#include <QLabel>
#include <QProgressBar>
#include <QSessionManager>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <clocale>
#include <thread>

#include "app_shell/qt/layouts.h"
#include "app_shell/qt/qt_application.h"
#include "app_shell/qt/qt_window.h"
#include "computer/package/file_package.h"
#include "support/virtual_clock.h"

namespace qm5::test {
namespace {

using Trace = std::vector<std::string>;

class QtWindows : public testing::Test {
 public:
  static void SetUpTestSuite() {
    static int count = 1;
    static std::string name = "qt_windows_test";
    static char* arguments[] = {name.data(), nullptr};
    setApplicationPackage(new FilePackage);
    // As in the program, it is never taken apart.
    [[maybe_unused]] static const auto* const kept = new QApplication(count, arguments);
  }

  std::shared_ptr<Window> mainWindow() {
    return std::make_shared<QtWindow>(queue_, makeMainLayout());
  }
  std::shared_ptr<Window> progressWindow() {
    return application_.instantiateWindow("Main", "ProgressWindow");
  }

 protected:
  void note(const std::string& what) { heard_.push_back(what); }
  // Shows a window, and returns it once it is on the screen and has the keyboard.
  static QWidget* shownBy(const std::function<void()>& show) {
    const QWidget* const below = QApplication::activeWindow();
    show();
    const auto top = [] { return QApplication::activeWindow(); };
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return top() && top() != below && top()->windowHandle()->isExposed(); }));
    return top();
  }
  QWidget* ask(Window& window) {
    return shownBy([&] {
      window.beginSheet({.messageText = "Exit confirmation",
                         .informativeText = "Do you want to quit?",
                         .firstButton = "Quit",
                         .otherButtons = {"Don't quit"},
                         .comesUnasked = true},
                        [this](int response) {
                          EXPECT_EQ(QApplication::activeModalWidget(), nullptr) << "answered";
                          note(std::to_string(response));
                        });
    });
  }
  QWidget* show(Window& window) {
    return shownBy([&] {
      window.show();
      clock_.sleep(0.5);  // nobody sees it yet
    });
  }

  VirtualClock clock_;
  Trace heard_;
  MainQueue queue_;
  QtApplication application_;
};

TEST_F(QtWindows, TicksWhileItIsOnTheScreenOnly) {
  const auto window = progressWindow();
  int ticks = 0;
  window->setTimer(0.001, [&] { ++ticks; });
  QTest::qWait(20);
  EXPECT_EQ(ticks, 0);
  const QWidget* const shown = show(*window);
  EXPECT_TRUE(QTest::qWaitFor([&] { return ticks > 1; }));
  std::thread([&] { window->close(); }).join();
  EXPECT_TRUE(shown->isVisible()) << "the main thread alone hides it";
  EXPECT_TRUE(QTest::qWaitFor([&] { return !shown->isVisible(); }));
  ticks = 0;
  QTest::qWait(20);
  EXPECT_EQ(ticks, 0);
}

// --- the main queue and modal runs ---

TEST_F(QtWindows, StepsKeepTheirOrderInAndOutOfNestedRuns) {
  application_.stopModal();  // there is no run: none ends, now or later
  application_.mainQueueAsync([&] {
    note("first");
    application_.mainQueueAsync([&] { note("third"); });
    application_.mainQueueAsync([&] {
      application_.stopModal();
      application_.stopModal();
    });
    application_.runModalForWindow(progressWindow());
    note("inner run ended");
    // Had the second stop reached the outer run, this step would not be served in it.
    application_.mainQueueAsync([&] {
      note("outer run goes on");
      application_.stopModal();
    });
  });
  application_.mainQueueAsync([&] { note("second"); });
  application_.runModalForWindow(progressWindow());
  EXPECT_EQ(heard_, (Trace{"first", "second", "third", "inner run ended", "outer run goes on"}));
}

// ThreadSanitizer sees it, where the queue looks without the lock whether it is idle.
TEST_F(QtWindows, StepsRunThatComeOneByOneFromAnotherThread) {
  std::atomic<int> ran = 0;
  std::thread other([&] {
    for (int i = 0; i < 3; ++i) {
      queue_.async([&] { ran.fetch_add(1, std::memory_order_relaxed); });
      std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the queue becomes idle
    }
  });
  EXPECT_TRUE(QTest::qWaitFor([&] { return ran.load(std::memory_order_relaxed) == 3; }, 30'000));
  other.join();
}

TEST_F(QtWindows, HandsATokenOnThatAllowsItToComeToTheFront) {
  const auto window = progressWindow();
  show(*window);
  *QGuiApplicationPrivate::platform_name = "wayland";
  application_.activate("token");
  EXPECT_EQ(qgetenv("XDG_ACTIVATION_TOKEN"), "token");
}

// --- keys ---

TEST_F(QtWindows, AKeyHeldSinceAnotherWindowPressesNothing) {
  const auto window = mainWindow();
  QTest::keyPress(show(*window), Qt::Key_Return);
  QWidget* const question = ask(*window);
  const auto* const buttons = question->findChild<QDialogButtonBox*>();
  for (QAbstractButton* button : buttons->buttons())
    EXPECT_EQ(buttons->buttonRole(button) == QDialogButtonBox::AcceptRole,
              button->text() == "&Quit");
  clock_.sleep(0.4);
  QTest::keyClick(question, Qt::Key_Escape);  // nobody can have read the question yet
  const QWidget* const button = buttons->buttons().front();
  QTest::mouseDClick(question->windowHandle(), Qt::LeftButton, {},
                     button->mapTo(question, button->rect().center()));
  clock_.sleep(0.1);
  QTest::keyPress(question, Qt::Key_Return);
  EXPECT_EQ(heard_, Trace{});
  clock_.sleep(1);  // it was let go where no window heard of it
  QTest::keyClick(question, Qt::Key_Return);
  EXPECT_EQ(heard_, Trace{"1001"});
}

TEST_F(QtWindows, ShowsLinesToCopyAndSave) {
  const auto window = mainWindow();
  QWidget* shown = show(*window);
  QWidget* details = shownBy([&] {
    window->showText({"Details", "The lines of the run.", "one\ntwo", "run.txt"});
  });
  QTest::keyClick(details, Qt::Key_C, Qt::AltModifier);
  EXPECT_TRUE(
      QTest::qWaitFor([] { return QApplication::clipboard()->text() == QString("one\ntwo"); }));
  const auto save = [&](const QString& path) {
    for (auto* button : details->findChildren<QPushButton*>())
      if (button->text() == "&Save…") button->click();
    auto* const dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
    ASSERT_NE(dialog, nullptr);
    emit dialog->fileSelected(path);
    delete dialog;
  };
  const QTemporaryDir folder;
  save(folder.filePath("run.txt"));
  QFile saved(folder.filePath("run.txt"));
  EXPECT_TRUE(saved.open(QIODevice::ReadOnly));
  EXPECT_EQ(saved.readAll(), "one\ntwo");
  EXPECT_EQ(QApplication::activeModalWidget(), details);
  save(folder.path());  // no file can be there
  ASSERT_NE(QApplication::activeModalWidget(), details) << "an alert says so";
  QTest::keyClick(QApplication::activeModalWidget(), Qt::Key_Return);
  QTest::keyClick(details, Qt::Key_Escape);
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
  EXPECT_TRUE(shown->isVisible());
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
  constexpr int kPause = 32;  // milliseconds, two frames
  const auto window = progressWindow();
  const QWidget* shown = show(*window);
  auto* title = shown->findChild<QLabel*>("txtTitle2");
  auto* bar = shown->findChild<QProgressBar*>("progressBar");
  EXPECT_FALSE(bar->isTextVisible()) << "the percentage is in the text";
  PaintCount title_paints;
  PaintCount bar_paints;
  title->installEventFilter(&title_paints);
  bar->installEventFilter(&bar_paints);
  window->textField("txtTitle2")->setStringValue("by no step");
  EXPECT_EQ(title->text(), "by no step");
  window->progressIndicator("progressBar")->setDoubleValue(1);
  EXPECT_TRUE(QTest::qWaitFor([&] { return bar_paints.paints > 0; })) << "of a single percent";
  int done = 0;
  int done_before_timer = kSteps;
  QElapsedTimer time;
  time.start();
  for (int i = 1; i <= kSteps; ++i) {
    application_.mainQueueAsync([&, i] {
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
  QTest::qWait(2 * kPause);
  const auto frames = static_cast<int>(time.elapsed() / kPause + 1);
  EXPECT_LT(done_before_timer, kSteps) << "the steps ran before all else";
  for (const int paints : {title_paints.paints, bar_paints.paints}) {
    EXPECT_GE(paints, 2);
    EXPECT_LE(paints, frames);
  }
  EXPECT_EQ(title->text(), QString::number(kSteps));
  EXPECT_EQ(bar->value(), bar->maximum());
}

// --- the application's own end ---

struct TellingDelegate : ApplicationDelegate {
  int applicationLostDisplay() override { return 3; }
  void applicationDidFinishLaunching() override {}
  void applicationIsActive(bool) override {}
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

struct TellingSession : QPlatformSessionManager {
  using QPlatformSessionManager::QPlatformSessionManager;
  void cancel() override { std::fputs("cancelled, ", stderr); }
};
// Qt does not export the type that a sanitizer would compare with.
__attribute__((no_sanitize("vptr"))) void setSession(QSessionManager& manager) {
  static_cast<QSessionManagerPrivate*>(QObjectPrivate::get(&manager))->platformSessionManager =
      new TellingSession("", "");
}

// Runs the application on a toolkit of its own, with a thread at work, and has `end` end it.
void runUntil(void (*end)(QtApplication&)) {
  QtApplication application;
  setApplicationPackage(new FilePackage);
  std::thread([] { std::this_thread::sleep_for(std::chrono::minutes(5)); }).detach();
  const auto make_controller = [&](const std::shared_ptr<Window>&) {
    application.mainQueueAsync([&] {
      if (std::localeconv()->decimal_point != std::string(".")) std::abort();
      if (std::setlocale(LC_MESSAGES, nullptr) != std::string("C")) std::abort();
      end(application);
    });
    return std::make_shared<int>();
  };
  std::string name = "qm5-updater";
  char* arguments[] = {name.data(), nullptr};
  application.applicationMain(
      1, arguments, {[] { return std::make_shared<TellingDelegate>(); }, make_controller});
}

TEST(QtApplicationDeathTest, EndsWithItsLastWindowAndWhenToldTo) {
  std::setlocale(LC_ALL, "");
  ASSERT_STREQ(std::localeconv()->decimal_point, ",") << "the person's own locale";
  const auto ended = testing::ExitedWithCode(0);
  EXPECT_EXIT(runUntil([](auto&) { QApplication::closeAllWindows(); }), ended, "will terminate");
  EXPECT_EXIT(runUntil([](auto&) { QApplication::quit(); }), ended, "will terminate");
  const auto without_memory = [](QtApplication& application) {
    application.mainQueueAsync([] { QApplication::quit(); });
    throw std::bad_alloc();
  };
  EXPECT_EXIT(runUntil(without_memory), ended, "not enough memory.*\n.*will terminate");
  const auto lost = testing::ExitedWithCode(3);
  EXPECT_EXIT(runUntil([](auto&) { std::exit(1); }), lost, "") << "as the plug-in for X does";
  const auto end_by_thread = [](auto&) { std::thread([] { ::_exit(1); }).detach(); };
  EXPECT_EXIT(runUntil(end_by_thread), lost, "") << "as the plug-in for Wayland does";
  const auto end_child = [](auto&) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(5);
    int status = 0;
    ::waitpid(child, &status, 0);
    std::_Exit(WEXITSTATUS(status));
  };
  EXPECT_EXIT(runUntil(end_child), testing::ExitedWithCode(5), "") << "another process's end";
  const auto session_then_signal = [](QtApplication& application) {
    auto& session = *qApp->findChild<QSessionManager*>();
    setSession(session);
    emit qApp->commitDataRequest(session);
    application.requestTermination([] {});
  };
  EXPECT_EXIT(runUntil(session_then_signal), ended, "asked, cancelled, asked, will terminate");
}

}  // namespace
}  // namespace qm5::test
