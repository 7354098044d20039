// The Qt adapter on Qt's offscreen platform: modal runs and the main queue, alerts, what a
// person's keys and closing requests do, and the geometry of the windows.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QAbstractButton>
#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QMessageBox>
#include <QProgressBar>
#include <QScreen>
#include <QTimer>
#include <chrono>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "app_shell/qt/layouts.h"
#include "app_shell/qt/main_queue.h"
#include "app_shell/qt/qt_toolkit.h"
#include "app_shell/qt/qt_window.h"

namespace qm5 {
namespace {

using Trace = std::vector<std::string>;

void press(int key) {
  QWidget* window = QApplication::activeModalWidget();
  QWidget* target = window && window->focusWidget() ? window->focusWidget() : window;
  ASSERT_NE(target, nullptr) << "no modal window to press a key in";
  for (const auto type : {QEvent::KeyPress, QEvent::KeyRelease}) {
    QKeyEvent event(type, key, Qt::NoModifier, key == Qt::Key_Space ? " " : "");
    QApplication::sendEvent(target, &event);
  }
}

QWidget* shownWindow(const QString& title) {
  for (QWidget* widget : QApplication::topLevelWidgets()) {
    if (widget->isVisible() && widget->windowTitle() == title) return widget;
  }
  return nullptr;
}

void serveEvents() {
  // Twice: what an event posts is served too.
  for (int i = 0; i < 2; ++i) QApplication::processEvents();
}

class QtWindows : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    static int count = 1;
    static std::string name = "qt_windows_test";
    static char* arguments[] = {name.data(), nullptr};
    // As in the program, it is never taken apart.
    static const auto* const application = new QApplication(count, arguments);
    ASSERT_NE(application, nullptr);
  }

  std::shared_ptr<Window> progressWindow() {
    return toolkit_.instantiateWindow("Main", "ProgressWindow");
  }

  QtToolkit toolkit_;
};

// --- the main queue and modal runs ---

TEST_F(QtWindows, StepsKeepTheirOrderInAndOutOfNestedRuns) {
  const auto outer = progressWindow();
  const auto inner = progressWindow();
  Trace trace;
  toolkit_.mainQueueAsync([&] {
    trace.push_back("first");
    toolkit_.mainQueueAsync([&] { trace.push_back("third, inside"); });
    toolkit_.mainQueueAsync([&] {
      toolkit_.stopModal();
      toolkit_.stopModal();
    });
    toolkit_.runModalForWindow(inner);
    trace.push_back("inner run ended");
    // Had the second stop reached the outer run, this step would not be served in it.
    QTimer::singleShot(0, [&] {
      trace.push_back("outer run goes on");
      toolkit_.stopModal();
    });
  });
  toolkit_.mainQueueAsync([&] { trace.push_back("second, inside"); });
  toolkit_.runModalForWindow(outer);
  EXPECT_EQ(trace, (Trace{"first", "second, inside", "third, inside", "inner run ended",
                          "outer run goes on"}));
}

TEST_F(QtWindows, AStopWithoutARunEndsNoLaterRun) {
  const auto window = progressWindow();
  toolkit_.stopModal();
  bool served = false;
  QTimer::singleShot(0, [&] {
    served = true;
    toolkit_.stopModal();
  });
  toolkit_.runModalForWindow(window);
  EXPECT_TRUE(served);
}

TEST_F(QtWindows, CallsFromAnotherThreadArriveInOrderOnTheMainThread) {
  const auto window = progressWindow();
  Trace trace;
  const auto main_thread = std::this_thread::get_id();
  window->setViewWillDisappear([&] {
    trace.push_back(std::this_thread::get_id() == main_thread ? "closed" : "wrong thread");
  });
  window->show();
  std::thread job([&] {
    toolkit_.mainQueueAsync([&] { trace.push_back("before"); });
    window->close();
    toolkit_.mainQueueAsync([&] { trace.push_back("between"); });
    toolkit_.stopModal();
    window->beginSheet({"Title", "Text", {"OK"}}, [&](int) {});
    toolkit_.mainQueueAsync(
        [&] { trace.push_back(QApplication::activeModalWidget() ? "alert is up" : "no alert"); });
  });
  toolkit_.runModalForWindow(window);
  job.join();
  serveEvents();
  EXPECT_EQ(trace, (Trace{"before", "closed", "between", "alert is up"}));
}

// --- alerts ---

struct AlertKey {
  const char* name;
  std::vector<std::string> buttons;
  int key;
  int response;
};

void PrintTo(const AlertKey& tested, std::ostream* out) {
  *out << tested.name;
}

class AlertKeys : public QtWindows, public testing::WithParamInterface<AlertKey> {};

TEST_P(AlertKeys, Answer) {
  const auto window = progressWindow();
  window->show();
  std::vector<int> responses;
  window->beginSheet({"Title", "Text", GetParam().buttons}, [&](int r) { responses.push_back(r); });
  serveEvents();
  press(GetParam().key);
  serveEvents();
  EXPECT_EQ(responses, std::vector{GetParam().response});
}

const std::vector<std::string> kQuestion = {"Quit", "Don't quit"};
INSTANTIATE_TEST_SUITE_P(
    Qt, AlertKeys,
    testing::Values(AlertKey{"ReturnQuits", kQuestion, Qt::Key_Return, kAlertFirstButtonReturn},
                    AlertKey{"EscapeDoesNotQuit", kQuestion, Qt::Key_Escape,
                             kAlertFirstButtonReturn + 1},
                    AlertKey{"ReturnIsOK", {"OK"}, Qt::Key_Return, kAlertFirstButtonReturn},
                    AlertKey{"EscapeIsOK", {"OK"}, Qt::Key_Escape, kAlertFirstButtonReturn}),
    [](const auto& tested) { return std::string(tested.param.name); });

TEST_F(QtWindows, AnAlertGoesWithItsWindowUnanswered) {
  const auto window = progressWindow();
  window->show();
  std::vector<int> responses;
  window->beginSheet({"Title", "Text", kQuestion}, [&](int r) { responses.push_back(r); });
  serveEvents();
  window->close();
  serveEvents();
  EXPECT_EQ(responses, std::vector{kModalResponseAbort});
  EXPECT_EQ(QApplication::activeModalWidget(), nullptr);
}

// --- windows that only the program closes ---

std::shared_ptr<Window> finishDialog(QtToolkit& toolkit, const Action& action) {
  auto window = toolkit.makeWindow({{0, 0}, {320, 280}}, WindowStyle::titled);
  window->setTitle("Done!");
  window->setFrameOrigin({200, 200});
  window->addSubview(ImageView{{{107, 160}, {106, 100}}, "qm5_OK"});
  window->addSubview(Label{{{10, 120}, {300, 20}}, "Firmware update successful!", 16, false});
  window->addSubview(Label{{{10, 45}, {300, 60}},
                           "New version(QM5 v.4208)\nPlease power cycle your QM5 to apply\n"
                           "the new firmware.",
                           std::nullopt,
                           true});
  window->addSubview(
      PushButton{{{10, 10}, {300, 40}}, "Confirm & Exit", BezelStyle::rounded, action});
  return window;
}

TEST_F(QtWindows, EscapeAndClosingRequestsLeaveProgressAndFinishUp) {
  int disappeared = 0;
  const std::vector<std::shared_ptr<Window>> windows = {progressWindow(),
                                                        finishDialog(toolkit_, {})};
  for (const auto& window : windows) {
    window->setTitle("Stays");
    window->setViewWillDisappear([&] { ++disappeared; });
    window->show();
    serveEvents();
    press(Qt::Key_Escape);
    QWidget* shown = shownWindow("Stays");
    ASSERT_NE(shown, nullptr);
    shown->close();
    EXPECT_TRUE(shown->isVisible());
    EXPECT_EQ(disappeared, 0);
    window->close();
    EXPECT_FALSE(shown->isVisible());
    EXPECT_EQ(std::exchange(disappeared, 0), 1);
  }
}

TEST_F(QtWindows, ReturnDoesNotAbortAndSpaceDoes) {
  const auto window = progressWindow();
  int aborts = 0;
  Button* sender = nullptr;
  window->setAction("btnAbort", [&](Button* pressed) {
    ++aborts;
    sender = pressed;
  });
  window->show();
  serveEvents();
  press(Qt::Key_Return);
  EXPECT_EQ(aborts, 0);
  press(Qt::Key_Space);
  EXPECT_EQ(aborts, 1);
  EXPECT_EQ(sender, window->button("btnAbort").get());
}

// --- what a layout gives, and how it shows it ---

TEST_F(QtWindows, OutletsAreFoundByNameAndShowWhatTheyAreTold) {
  const auto window = progressWindow();
  window->setTitle("Outlets");
  window->show();
  EXPECT_EQ(window->textField("txtTitle3"), nullptr);
  EXPECT_EQ(toolkit_.instantiateWindow("Main", "Other"), nullptr);

  QWidget* shown = shownWindow("Outlets");
  const QSize size = shown->size();
  window->textField("txtTitle2")
      ->setStringValue("Updating firmware version from DDDD -> 4208, (100.0 %)");
  window->progressIndicator("progressBar")->setDoubleValue(37.5);
  serveEvents();
  EXPECT_EQ(shown->size(), size) << "the window jumps with its text";
  const auto* bar = shown->findChild<QProgressBar*>("progressBar");
  EXPECT_DOUBLE_EQ(bar->value() * 100.0 / bar->maximum(), 37.5);
}

// --- geometry ---

class Fonts : public QtWindows, public testing::WithParamInterface<double> {
 protected:
  Fonts() {
    QFont font = usual_;
    font.setPointSizeF(font.pointSizeF() * GetParam());
    QApplication::setFont(font);
  }
  ~Fonts() override { QApplication::setFont(usual_); }

  static void expectNoTextCut(const QWidget& window) {
    for (const auto* label : window.findChildren<QLabel*>()) {
      const std::string text = label->text().toStdString();
      if (label->wordWrap()) {
        EXPECT_GE(label->height(), label->heightForWidth(label->width())) << text;
      } else {
        EXPECT_GE(label->width(), label->minimumSizeHint().width()) << text;
        EXPECT_GE(label->height(), label->minimumSizeHint().height()) << text;
      }
    }
    for (const auto* button : window.findChildren<QAbstractButton*>()) {
      EXPECT_GE(button->width(), button->sizeHint().width()) << button->text().toStdString();
      EXPECT_GE(button->height(), button->sizeHint().height()) << button->text().toStdString();
    }
  }

 private:
  const QFont usual_ = QApplication::font();
};

TEST_P(Fonts, NoTextIsCut) {
  MainQueue queue;
  const auto main = std::make_shared<QtWindow>(queue, makeMainLayout(), nullptr);
  const auto progress = progressWindow();
  const auto finish = finishDialog(toolkit_, {});
  for (Window* window : {static_cast<Window*>(main.get()), progress.get(), finish.get()}) {
    window->setTitle("Measured");
    window->show();
    serveEvents();
    expectNoTextCut(*shownWindow("Measured"));
    window->beginSheet({"QM5 firmware update data error!",
                        "Attached binary file data error.\n"
                        "Please download this program and try again.",
                        {"OK"}},
                       [](int) {});
    serveEvents();
    expectNoTextCut(*QApplication::activeModalWidget());
    window->close();
  }
}

TEST_P(Fonts, TheFinishDialogGrowsInStepAboutItsCentre) {
  const auto empty = toolkit_.makeWindow({{0, 0}, {320, 280}}, WindowStyle::titled);
  empty->setFrameOrigin({200, 200});
  const auto window = finishDialog(toolkit_, {});
  EXPECT_EQ(window->contentViewSize()->width, 320);
  EXPECT_NEAR(window->frame().origin.y + window->frame().size.height / 2,
              empty->frame().origin.y + empty->frame().size.height / 2, 1);

  window->show();
  serveEvents();
  const QWidget* shown = shownWindow("Done!");
  const double scale = shown->width() / 320.0;
  if (GetParam() == 1) {
    EXPECT_EQ(shown->size(), QSize(320, 280));
  }
  EXPECT_GE(scale, GetParam() > 1 ? 1.5 : 1);
  struct Placed {
    const char* text;
    double left, top;
  };
  // Upper edges: the height of 280 less the frame's y and its height.
  const std::vector<Placed> expected = {
      {"Firmware update successful!", 10, 140}, {"New version", 10, 175}, {"Confirm", 10, 230}};
  for (const auto& [text, left, top] : expected) {
    const QWidget* found = nullptr;
    for (const auto* child : shown->findChildren<QWidget*>()) {
      if (child->property("text").toString().startsWith(text)) found = child;
    }
    ASSERT_NE(found, nullptr) << text;
    EXPECT_NEAR(found->x(), left * scale, 1) << text;
    EXPECT_NEAR(found->y(), top * scale, 1) << text;
  }
  EXPECT_EQ(shown->findChild<QAbstractButton*>()->text(), "Confirm && Exit");
}

INSTANTIATE_TEST_SUITE_P(Qt, Fonts, testing::Values(1.0, 2.0), [](const auto& tested) {
  return tested.param == 1 ? "Usual" : "Doubled";
});

TEST_F(QtWindows, ReturnAndSpaceConfirmTheFinishDialog) {
  int confirmed = 0;
  const auto window = finishDialog(toolkit_, [&](Button*) { ++confirmed; });
  window->makeKeyAndOrderFront();
  serveEvents();
  press(Qt::Key_Return);
  press(Qt::Key_Space);
  EXPECT_EQ(confirmed, 2);
}

TEST_F(QtWindows, FramesCountFromTheLowerLeftOfTheScreen) {
  const auto window = progressWindow();
  window->setTitle("Placed");
  window->show();
  serveEvents();
  window->setFrameOrigin({30, 0});
  serveEvents();
  const QRect frame = shownWindow("Placed")->frameGeometry();
  EXPECT_EQ(frame.x(), 30);
  EXPECT_EQ(frame.bottom(), QGuiApplication::primaryScreen()->geometry().bottom());
  EXPECT_EQ(window->frame().origin.y, 0);
  EXPECT_EQ(window->frame().size.height, frame.height());
}

// --- resources and files ---

TEST_F(QtWindows, PicturesAreFoundAtEachScale) {
  for (const char* name : {"qm5_OK", "qm5_OK@2x", "qm5_OK@3x"}) {
    EXPECT_TRUE(toolkit_.pathForResource(name, "png")) << name;
  }
  EXPECT_FALSE(toolkit_.pathForResource("qm5_OK", "jpg"));
}

TEST_F(QtWindows, OnlyRegularFilesAreReadAndNothingIsWaitedFor) {
  std::string directory = testing::TempDir() + "qm5-read-XXXXXX";
  ASSERT_NE(::mkdtemp(directory.data()), nullptr);
  const std::string fifo = directory + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string regular = directory + "/regular";
  std::ofstream(regular, std::ios::binary) << std::string("\0\xFFtext", 6);

  const auto description = [&](const std::string& path) {
    const FileContents contents = toolkit_.readFile(path);
    const auto* error = std::get_if<FileError>(&contents);
    return error ? error->description : "no error";
  };
  EXPECT_EQ(description(directory), "Is a directory");
  EXPECT_EQ(description(fifo), "Not a regular file");
  EXPECT_EQ(description(directory + "/missing"), "No such file or directory");
  const FileContents contents = toolkit_.readFile(regular);
  ASSERT_TRUE(std::holds_alternative<Bytes>(contents));
  EXPECT_EQ(std::get<Bytes>(contents), (Bytes{0x00, 0xFF, 't', 'e', 'x', 't'}));
  std::filesystem::remove_all(directory);
}

// --- the application's own end ---

struct TellingDelegate : ApplicationDelegate {
  void applicationDidFinishLaunching() override {}
  void applicationWillTerminate() override { std::fputs("will terminate", stderr); }
  bool applicationSupportsSecureRestorableState() override { return true; }
  bool applicationShouldTerminateAfterLastWindowClosed() override { return true; }
};

// Runs the application on a toolkit of its own, with a thread at work, and has `end` end it.
void runUntil(const std::function<void(QtToolkit&)>& end) {
  QtToolkit toolkit;
  std::thread([] { std::this_thread::sleep_for(std::chrono::minutes(5)); }).detach();
  const auto make_controller = [&](const std::shared_ptr<Window>&) {
    toolkit.mainQueueAsync([&] {
      if (std::localeconv()->decimal_point != std::string(".")) std::abort();
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
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(runUntil([](QtToolkit&) { shownWindow("QM5 Updater")->close(); }),
              testing::ExitedWithCode(0), "will terminate");
  EXPECT_EXIT(runUntil([](QtToolkit& toolkit) { toolkit.terminate(); }), testing::ExitedWithCode(0),
              "will terminate");
  EXPECT_EXIT(runUntil([](QtToolkit&) { QApplication::quit(); }), testing::ExitedWithCode(0),
              "will terminate");
}

}  // namespace
}  // namespace qm5
