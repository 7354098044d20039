// The shell's logic without a toolkit: every outcome of a run, in order, with the thread.
#include "app_shell/view_controller.h"

#include <algorithm>
#include <latch>

#include "app_shell/progress_window.h"
#include "simulator/faulty_qm5.h"
#include "support/named_cases.h"
#include "support/update_requests.h"
#include "support/whole_app.h"

namespace qm5::test {
namespace {

constexpr int kOK = kAlertFirstButtonReturn;

class Shell : public testing::Test {
 protected:
  // Starts the application's classes anew as the toolkit does.
  void start() {
    app_.start();
    controller = std::static_pointer_cast<ViewController>(toolkit.controller);
  }
  void attach(std::uint16_t version) {
    device_.emplace(Qm5Model({.version = version}));
    app_.bus.plug(*device_);
  }
  void refuseEverything() { device_->addFault({.kind = FaultKind::stall_on, .number = 1}); }
  // What the device was asked.
  Lines requests() const {
    Lines lines;
    for (const RequestRecord& request : device_->requests())
      lines.push_back(describe({request.setup, {}}));
    return lines;
  }

 private:
  std::optional<FaultyQm5> device_;
  WholeApp app_{smallImage()};

 protected:
  Transcript& transcript = app_.transcript;
  VirtualClock& clock = app_.clock;
  ScriptedToolkit& toolkit = app_.toolkit;
  std::shared_ptr<ViewController> controller;
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

struct Ending {
  std::string_view name;
  std::optional<std::uint16_t> version;  // absent: no device is attached
  bool refused;                          // the device answers nothing
  FileContents image;
  Lines lines;  // between the presence check and the alert
  std::string_view alert;
  bool from_job;  // the alert is asked for on the job's own thread
};
QM5_PRINTS_NAME(Ending)

class Run : public Shell, public testing::WithParamInterface<Ending> {};

// Each twice in a row: "OK" leads back to where the next run can start.
TEST_P(Run, EndsInItsAlertAndCanBeRepeated) {
  const auto& [name, version, refused, image, lines, alert, from_job] = GetParam();
  toolkit.image = image;
  start();
  if (version) attach(*version);
  if (refused) refuseEverything();
  Lines expected = kNext;
  if (version) expected.emplace_back("out: Found TI SOC on IOKit");
  expected = expected + lines;
  const std::string shown = "alert on main: " + std::string(alert) + " [OK]";
  expected = expected + (from_job ? Lines{"stopModal [job]", "progress closed [job]",
                                          shown + " [job]", "may sleep", "stopModal"}
                                  : kDown + Lines{shown, "may sleep"});
  for (std::size_t round = 1; round <= 2; ++round) {
    transcript.take();
    toolkit.main->press("btnNext");
    toolkit.runUntilAlert();
    EXPECT_EQ(byThread(transcript.take()), byThread(expected));
    EXPECT_EQ(clock.takeSleeps(), std::vector<double>{1.0});
    toolkit.answer(kOK);
    EXPECT_EQ(transcript.take(), (Lines{"log: OK pressed", "btnExit enabled", "btnNext enabled"}));
    if (version) {
      EXPECT_EQ(requests(), Lines(round, describe(registerRead(0x06, 9))));
    }
  }
}

constexpr std::string_view kNoDevice =
    "No QM5 device ! | There is no QM5 connected!\nCheck your QM5 connection then try again.";
constexpr std::string_view kNoVersion =
    "Get customer version error ! | There is no QM5 connected!\n"
    "Check your QM5 connection then try again.";
constexpr std::string_view kNoNeed =
    "QM5 no need to update ! | Current QM5 version: 4208\nNo need to update.";
constexpr std::string_view kDataError =
    "QM5 firmware update data error! | Attached binary file data error.\n"
    "Please download this program and try again.";
constexpr std::string_view kFlashError =
    "Flash firmware error | Flash ti dmc firmware error, please try again.";
const std::string kFound = "log: Device found. Out customer version: ";
const FileError kGone = {"gone"};

INSTANTIATE_TEST_SUITE_P(
    Endings, Run,
    testing::Values(
        Ending{"no device", {}, false, Bytes{}, {"log: str_NO_DMC"}, kNoDevice, false},
        Ending{
            "no version", 1, true, kGone, {"log: Get customer version error."}, kNoVersion, false},
        Ending{"same version", 0x4208, false, kGone, {kFound + "4208"}, kNoNeed, false},
        Ending{"no image", 0x420A, false, kGone, {kFound + "420A"}, kDataError, true},
        Ending{"bad image",
               0x4209,
               false,
               Bytes(3),
               {kFound + "4209", "out: Invalid binary file. Binary file length:3"},
               kFlashError,
               false}),
    named);

Lines without(Lines lines, std::string_view prefix) {
  std::erase_if(lines, [&](const std::string& line) { return line.starts_with(prefix); });
  return lines;
}

TEST_F(Shell, ShowsEachStepAndEndsInTheFinishDialog) {
  start();
  attach(0x420A);
  Lines expected = without(kNext, "out: ");
  expected.emplace_back("log: Device found. Out customer version: 420A");
  const auto step = [&](const std::string& value, const std::string& shown) {
    expected.push_back("progressBar: " + value);
    expected.push_back("txtTitle2: Updating firmware version from 420A -> 4208, (" + shown + " %)");
  };
  step("1.000000", "1.0");
  for (const std::string whole : {"0", "33", "66", "100"}) step(whole + ".000000", whole + ".0");
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
  transcript.take();
  toolkit.main->press("btnNext");
  // The job's own lines come when they come; those of the main thread keep their order.
  EXPECT_EQ(without(without(seen, "out: "), "log: S"), expected);
  controller->confirmButtonClicked(nullptr);
  EXPECT_EQ(transcript.take(), (Lines{"log: confirm button clicked", "finish closed"}));
}

TEST_F(Shell, PlacesTheFinishDialogByItsWholeHalfWidth) {
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

TEST_F(Shell, SharesOneDriverAmongControllers) {
  start();
  const auto first = global_driver;
  EXPECT_EQ(first->vendorID, 0x0451);
  EXPECT_EQ(first->productID, 0xACE1);
  const ViewController second;
  EXPECT_EQ(global_driver, first);
}

using ShellDeathTest = Shell;

TEST_F(ShellDeathTest, StopsTheProgramWithoutAPartOfItsLayout) {
  const auto press_next = [this] {
    start();
    toolkit.main->press("btnNext");
  };
  for (const std::string outlet : {"btnExit", "btnNext", "progressBar"}) {
    toolkit.main->missing_outlets = toolkit.progress->missing_outlets = {outlet};
    EXPECT_DEATH(press_next(), "fatal error: no (button )?" + outlet);
  }
  toolkit.progress.reset();
  EXPECT_DEATH(press_next(), "no progress window");
}

}  // namespace
}  // namespace qm5::test
