// The shell's logic without a toolkit: every outcome of a run, in order, with the thread.
#include "app_shell/view_controller.h"

#include <algorithm>
#include <latch>

#include "app_shell/main_storyboard.h"
#include "app_shell/progress_window.h"
#include "support/linked_device.h"
#include "support/named_cases.h"
#include "support/scripted_toolkit.h"

namespace qm5::test {
namespace {

constexpr int kOK = kAlertFirstButtonReturn;

class Shell : public testing::Test {
 protected:
  ~Shell() override {
    toolkit.drain();
    controller.reset();
    waitForJob();
    global_driver.reset();
  }

  // Starts the application's classes as the toolkit does.
  void start() {
    EXPECT_EQ(toolkit.applicationMain(0, nullptr, mainStoryboard()), 3);
    controller = std::static_pointer_cast<ViewController>(toolkit.controller);
    toolkit.controller.reset();
    registry.waitForRunLoop();
    // A job's first second is enough for the progress window to come up.
    clock.during_sleep = [this](double seconds) {
      if (seconds == 1.0) toolkit.waitUntilModal();
    };
    watch_ = controller;
  }
  void attach() { postConnected(Dictionary{{"device", device.record()}}); }
  // The job holds the controller until its end.
  void waitForJob() {
    while (!watch_.expired()) std::this_thread::yield();
  }
  void expectVersion(std::uint8_t low, std::uint8_t high) {
    device.expectRead(0x06, 9, Bytes{low, high});
  }

  Transcript transcript;
  VirtualClock clock;
  ScriptedUSBRegistry registry;
  ScriptedUsbDevice device;
  ScriptedToolkit toolkit{transcript};
  std::shared_ptr<ViewController> controller;

 private:
  std::weak_ptr<ViewController> watch_;
};

const Lines kNext = {"log: Next Click",
                     "btnExit disabled",
                     "btnNext disabled",
                     "awake: The firmware of a QM5 is being updated.",
                     "progressBar: 0.000000",
                     "progress shown",
                     "progress at 150 300 300 100",
                     "modal run",
                     "log: check if device exist.",
                     "out: Checking for TI SOC on USB via IOKit driver"};
const Lines kDown = {"stopModal", "progress closed", "stopModal"};

Lines operator+(Lines first, const Lines& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The main thread's lines, then the job's: what one says meanwhile does not count.
Lines byThread(Lines lines) {
  std::stable_partition(lines.begin(), lines.end(),
                        [](const std::string& line) { return !line.ends_with(" [job]"); });
  return lines;
}

struct Package {
  std::string_view name;
  std::optional<std::string> path;
  FileContents contents;
  std::string_view line;
};
QM5_PRINTS_NAME(Package)

class Packaged : public Shell, public testing::WithParamInterface<Package> {};

TEST_P(Packaged, ImageIsReadAtStartUpAndItsLineSaysSo) {
  toolkit.image_path = GetParam().path;
  toolkit.image = GetParam().contents;
  start();
  EXPECT_EQ(transcript.take(), Lines{"out: " + std::string(GetParam().line)});
}

INSTANTIATE_TEST_SUITE_P(
    Images, Packaged,
    testing::Values(Package{"missing", std::nullopt, Bytes{}, "No embedded file."},
                    Package{"unreadable", "/p", FileError{"no permission"},
                            "Can not access file: no permission"},
                    Package{"empty", "/p", Bytes{}, "Got data size:0"},
                    Package{"present", "/p", Bytes(1234), "Got data size:1234"}),
    named);

struct Outcome {
  std::string_view name;
  std::optional<Bytes> version;  // absent: no device is attached
  bool version_refused;
  FileContents image;
  Lines lines;  // between the presence check and the alert
  std::string_view alert;
  bool from_job;  // the alert is asked for on the job's own thread
};
QM5_PRINTS_NAME(Outcome)

class Run : public Shell, public testing::WithParamInterface<Outcome> {};

// Each twice in a row: "OK" leads back to where the next run can start.
TEST_P(Run, EndsInItsAlertAndCanBeRepeated) {
  const Outcome& outcome = GetParam();
  toolkit.image = outcome.image;
  start();
  if (outcome.version) attach();
  Lines expected = kNext;
  if (outcome.version) expected.emplace_back("out: Found TI SOC on IOKit");
  expected = expected + outcome.lines;
  const std::string alert = "alert on main: " + std::string(outcome.alert) + " [OK]";
  expected = expected + (outcome.from_job ? Lines{"stopModal [job]", "progress closed [job]",
                                                  alert + " [job]", "may sleep", "stopModal"}
                                          : kDown + Lines{alert, "may sleep"});
  for (int round = 0; round < 2; ++round) {
    if (outcome.version)
      device.expectRead(0x06, 9, outcome.version_refused ? std::nullopt : outcome.version);
    transcript.take();
    toolkit.main->press("btnNext");
    toolkit.runUntilAlert();
    EXPECT_EQ(byThread(transcript.take()), byThread(expected));
    EXPECT_EQ(clock.takeSleeps(), std::vector<double>{1.0});
    toolkit.answer(kOK);
    EXPECT_EQ(transcript.take(), (Lines{"log: OK pressed", "btnExit enabled", "btnNext enabled"}));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, Run,
    testing::Values(
        Outcome{"no device",
                {},
                false,
                Bytes{},
                {"log: str_NO_DMC"},
                "No QM5 device ! | There is no QM5 connected!\nCheck your QM5 connection then try "
                "again.",
                false},
        Outcome{"version refused",
                Bytes{},
                true,
                Bytes{},
                {"log: Get customer version error."},
                "Get customer version error ! | There is no QM5 connected!\nCheck your QM5 "
                "connection then try again.",
                false},
        Outcome{"same version",
                Bytes{0x08, 0x42},
                false,
                FileError{"gone"},
                {"log: Device found. Out customer version: 4208"},
                "QM5 no need to update ! | Current QM5 version: 4208\nNo need to update.",
                false},
        Outcome{"no image",
                Bytes{0x0A, 0x42},
                false,
                FileError{"gone"},
                {"log: Device found. Out customer version: 420A"},
                "QM5 firmware update data error! | Attached binary file data error.\nPlease "
                "download this program and try again.",
                true},
        Outcome{"bad image",
                Bytes{0x09, 0x42},
                false,
                Bytes(3),
                {"log: Device found. Out customer version: 4209",
                 "out: Invalid binary file. Binary file length:3"},
                "Flash firmware error | Flash ti dmc firmware error, please try again.",
                false}),
    named);

// An image without a payload: the shortest update there is.
Bytes shortestImage() {
  Bytes image(772, 5);
  const Bytes magic = {0x01, 0x00, 0xEF, 0xAC};
  std::copy(magic.begin(), magic.end(), image.begin());
  return image;
}

class Update : public Shell {
 protected:
  Update() { toolkit.image = shortestImage(); }

  void update() {
    expectVersion(0x0A, 0x42);
    Bytes reply(7);
    reply[0] = 0x40;
    device.expectTask("SFWi", {}, 7, reply);
    for (int i = 0; i < 12; ++i) device.expectTask("SFWs", Bytes(64, 5), 11, Bytes{0x40});
    transcript.take();
    toolkit.main->press("btnNext");
  }
  Lines without(Lines lines, std::string_view prefix) {
    std::erase_if(lines, [&](const std::string& line) { return line.starts_with(prefix); });
    return lines;
  }
};

TEST_F(Update, ShowsEachStepAndEndsInTheFinishDialog) {
  start();
  attach();
  Lines expected = without(kNext, "out: ");
  expected.emplace_back("log: Device found. Out customer version: 420A");
  const auto step = [&](const std::string& value, const std::string& shown) {
    expected.push_back("progressBar: " + value);
    expected.push_back("txtTitle2: Updating firmware version from 420A -> 4208, (" + shown + " %)");
  };
  step("1.000000", "1.0");
  for (int i = 0; i < 12; ++i) step("99.000000", "99.0");
  step("100.000000", "100.0");
  expected = expected + kDown +
             Lines{"may sleep",
                   "finish titled Firmware update successful!",
                   "finish at 140 210 320 280",
                   "image 107 160 106 100 qm5_OK",
                   "label 10 120 300 20 bold 16 Firmware update successful!",
                   std::string("label 10 45 300 60 wraps New version(QM5 v.4208)\n") +
                       "Please power cycle your QM5 to apply\nthe new firmware.",
                   "button 10 10 300 40 Confirm & Exit",
                   "finish in front",
                   "finish released when closed",
                   "modal run"};
  Lines seen;
  toolkit.during_finish_dialog = [&] {
    seen = transcript.take();
    toolkit.finish->press("Confirm & Exit");
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  };
  update();
  // The job's own lines come when they come; those of the main thread keep their order.
  EXPECT_EQ(without(without(seen, "out: "), "log: S"), expected);
  controller->confirmButtonClicked(nullptr);
  EXPECT_EQ(transcript.take(), (Lines{"log: confirm button clicked", "finish closed"}));
}

TEST_F(Update, PlacesTheFinishDialogByItsWholeHalfWidth) {
  start();
  for (const auto& [content, image_x] :
       {std::pair<std::optional<Size>, int>{std::nullopt, 107}, {Size{341.9, 280}, 117}}) {
    toolkit.finish_content_size = content;
    controller->showCustomDialog();
    const Lines lines = transcript.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "image " + std::to_string(image_x) + " 160 106 100 qm5_OK"),
              1);
  }
  toolkit.finish_content_size = Size{1e30, 280};
  EXPECT_DEATH(controller->showCustomDialog(), "without a usable width");
  toolkit.has_main_window = false;
  EXPECT_DEATH(controller->showCustomDialog(), "no main window");
}

TEST_F(Shell, DropsProgressWhileNoProgressWindowIsUp) {
  start();
  transcript.take();
  controller->callbackUpdateProgress("title", 50.0);
  toolkit.drain();
  EXPECT_EQ(transcript.take(), Lines{});
  // An error then leaves the progress window alone.
  controller->dialogErrorStop("T", "M");
  EXPECT_EQ(transcript.take(), Lines{"alert on main: T | M [OK]"});
  toolkit.answer(kModalResponseAbort);
  EXPECT_EQ(transcript.take(), Lines{}) << "only the button counts";
}

TEST_F(Shell, AsksBeforeItEndsFromBothWindows) {
  start();
  transcript.take();
  const std::string question =
      ": Exit confirmation | Firmware flashing did not finish.\nDo you really want to exit? "
      "[Quit] [Don't quit]";
  for (const auto& [window, button, line] :
       {std::tuple{toolkit.main, "btnExit", "log: Exit Click"},
        {toolkit.progress, "btnAbort", "log: Abort button clicked"}}) {
    window->press(button);
    const std::string name = window == toolkit.main ? "main" : "progress";
    std::string asked = "alert on ";
    EXPECT_EQ(transcript.take(), (Lines{line, asked.append(name).append(question)}));
    toolkit.answer(kOK + 1);
    EXPECT_EQ(transcript.take(), Lines{});
    window->press(button);
    transcript.take();
    toolkit.answer(kOK);
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  }
}

// From outside: by a signal, or at the session's end.
TEST_F(Shell, EndsWhenAskedFromOutsideUnlessAnUpdateRunsWhichAsksOnce) {
  start();
  int declined = 0;
  const auto interrupt = [&] { toolkit.requestTermination([&] { ++declined; }); };
  const auto alerts = [&] {
    const Lines lines = transcript.take();
    return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("alert on progress: Exit confirmation");
    });
  };
  interrupt();
  EXPECT_EQ(transcript.take().back(), "terminate");
  const auto during_run = [&] {
    for (const bool by_button : {false, true}) {
      alerts();
      if (by_button) toolkit.progress->press("btnAbort");
      interrupt();
      interrupt();
      EXPECT_EQ(alerts(), 1);
      toolkit.answer(by_button ? kModalResponseAbort : kOK + 1);
      EXPECT_EQ(std::exchange(declined, 0), 2);
    }
    interrupt();
    alerts();
    toolkit.answer(kOK);
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  };
  clock.during_sleep = [&](double) {
    toolkit.waitUntilModal();
    std::latch over(1);
    toolkit.mainQueueAsync([&] {
      during_run();
      over.count_down();
    });
    over.wait();
  };
  toolkit.main->press("btnNext");
  toolkit.runUntilAlert();
  toolkit.answer(kOK);
  interrupt();
  EXPECT_EQ(transcript.take().back(), "terminate");
}

TEST_F(Shell, DropsAnAlertThatHasNoWindow) {
  start();
  toolkit.main.reset();
  transcript.take();
  controller->dialogErrorStop("T", "M");
  controller->showExitConfirmation();
  EXPECT_EQ(transcript.take(), Lines{});
}

TEST_F(Shell, AnswersTheToolkitAsItsDelegate) {
  start();
  EXPECT_TRUE(toolkit.delegate->applicationSupportsSecureRestorableState());
  EXPECT_TRUE(toolkit.delegate->applicationShouldTerminateAfterLastWindowClosed());
}

TEST_F(Shell, SharesOneDriverAmongControllers) {
  start();
  const auto first = global_driver;
  EXPECT_EQ(first->vendorID, 0x0451);
  EXPECT_EQ(first->productID, 0xACE1);
  const ViewController second;
  EXPECT_EQ(global_driver, first);
}

TEST_F(Shell, HasNoVersionWithoutTheProcesssDriver) {
  start();
  attach();
  const auto driver = std::exchange(global_driver, nullptr);
  toolkit.main->press("btnNext");
  toolkit.runUntilAlert();
  const Lines lines = transcript.take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "log: Get customer version error."), 1);
  toolkit.answer(kOK);
  global_driver = driver;
}

struct MissingPart {
  std::string_view name;
  void (*remove)(ScriptedToolkit&);
  std::string_view reason;
};
QM5_PRINTS_NAME(MissingPart)

class IncompleteLayoutDeathTest : public Shell, public testing::WithParamInterface<MissingPart> {};

TEST_P(IncompleteLayoutDeathTest, StopsTheProgram) {
  EXPECT_DEATH(
      {
        GetParam().remove(toolkit);
        start();
        toolkit.main->press("btnNext");
      },
      std::string(GetParam().reason));
}

INSTANTIATE_TEST_SUITE_P(
    Parts, IncompleteLayoutDeathTest,
    testing::Values(MissingPart{"exit", [](auto& kit) { kit.main->missing_outlets = {"btnExit"}; },
                                "no button btnExit"},
                    MissingPart{"next", [](auto& kit) { kit.main->missing_outlets = {"btnNext"}; },
                                "no button btnNext"},
                    MissingPart{"progress window", [](auto& kit) { kit.progress.reset(); },
                                "no progress window"},
                    MissingPart{"bar",
                                [](auto& kit) { kit.progress->missing_outlets = {"progressBar"}; },
                                "no progressBar"}),
    named);

}  // namespace
}  // namespace qm5::test
