// The shell's logic without a toolkit: every outcome of a run, in order, with the thread.
#include "app_shell/view_controller.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <algorithm>
#include <latch>
#include <new>

#include "app_shell/progress_window.h"
#include "simulator/device/faulty_qm5.h"
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
    controller = std::static_pointer_cast<ViewController>(application.controller);
  }
  // In place of the one before, if any.
  void attach(std::uint16_t version, std::size_t busy_polls = 0) {
    device_.emplace(Qm5Model({.version = version, .busy_polls = {{"SFWs", busy_polls}}}));
    app_.bus.plug(*device_);
  }
  void detach() { app_.bus.unplug(); }
  // Has `step` run on the main thread while the progress window is up, in the job's first sleep,
  // which ends with it.
  void duringRun(const std::function<void()>& step) {
    application.waitUntilModal();
    std::latch over(1);
    application.mainQueueAsync([&] {
      step();
      over.count_down();
    });
    over.wait();
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
  ScriptedApplication& application = app_.application;
  std::shared_ptr<ViewController> controller;
};

const Lines kNext = {"log: Next Click",
                     "btnExit disabled",
                     "btnNext disabled",
                     "awake: The firmware of a QM5 is being updated.",
                     "progressBar: 0.000000",
                     "txtTitle2: Preparing the update …",
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
  bool from_job;            // the alert is asked for on the job's own thread
  std::string_view reason;  // in the main window; empty: no failure
};
QM5_PRINTS_NAME(Ending)

class Run : public Shell, public testing::WithParamInterface<Ending> {};

// The console's and the log's, from the job's first one on.
std::string linesOfRun(const Lines& transcript) {
  std::string lines;
  for (const std::string& line : transcript) {
    const bool is_written = line.starts_with("log: ") || line.starts_with("out: ");
    if (is_written && line != "log: Next Click") lines += line.substr(5) + "\n";
  }
  return lines;
}

// Each twice in a row: "OK" leads back to where the next run can start.
TEST_P(Run, EndsInItsAlertAndCanBeRepeated) {
  const auto& [name, version, refused, image, lines, alert, from_job, reason] = GetParam();
  application.image = image;
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
    application.main->press("btnNext");
    application.runUntilAlert();
    EXPECT_TRUE(application.sheet_came_unasked);
    EXPECT_EQ(byThread(transcript.take()), byThread(expected));
    EXPECT_EQ(application.shown["runStatus"], reason);
    EXPECT_EQ(application.shown["btnDetails"], reason.empty() ? "" : "shown");
    application.main->press("btnDetails");
    EXPECT_EQ(application.shown["text"], reason.empty() ? "" : linesOfRun(expected));
    EXPECT_EQ(clock.takeSleeps(), std::vector<double>{1.0});
    application.answer(kOK);
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
        Ending{"no device",
               {},
               false,
               Bytes{},
               {"log: str_NO_DMC"},
               kNoDevice,
               false,
               "No QM5 was connected."},
        Ending{"no version",
               1,
               true,
               kGone,
               {"log: Get customer version error."},
               kNoVersion,
               false,
               "The QM5 did not report its version."},
        Ending{"same version", 0x4208, false, kGone, {kFound + "4208"}, kNoNeed, false, ""},
        Ending{"no image",
               0x420A,
               false,
               kGone,
               {kFound + "420A"},
               kDataError,
               true,
               "The firmware file of this package is missing or could not be read; "
               "nothing was written to the QM5."},
        Ending{"bad image",
               0x4209,
               false,
               Bytes(3),
               {kFound + "4209", "out: Invalid binary file. Binary file length:3"},
               kFlashError,
               false,
               "The firmware file of this package is no image, as it has only 3 bytes; "
               "nothing was written to the QM5."},
        Ending{"no magic",
               0x4209,
               false,
               Bytes(772),
               {kFound + "4209", "out: Invalid binary header."},
               kFlashError,
               false,
               "The firmware file of this package is no image, as it begins like none; "
               "nothing was written to the QM5."}),
    named);

TEST_F(Shell, EndsARunInItsAlertWhereTheComputerHasNothingLeftForIt) {
  start();
  attach(0x4201);
  const auto expect_reason = [&](const std::string& reason) {
    application.main->press("btnNext");
    application.runUntilAlert();
    EXPECT_EQ(application.shown["runStatus"], reason);
    const Lines lines = transcript.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "alert on main: " + std::string(kFlashError) + " [OK]"),
              1);
    application.answer(kOK);
  };
  clock.during_sleep = [](double) { throw std::bad_alloc(); };
  expect_reason("The computer has not enough memory for the update.");
  pthread_attr_t too_large;
  pthread_attr_init(&too_large);
  pthread_attr_setstacksize(&too_large, std::size_t{1} << 46);
  pthread_setattr_default_np(&too_large);
  expect_reason("The computer had no thread left for the update.");
}

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
  application.during_finish_dialog = [&] {
    seen = transcript.take();
    application.finish->press("Confirm & Exit");
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  };
  transcript.take();
  application.main->press("btnNext");
  // The job's own lines come when they come; those of the main thread keep their order.
  EXPECT_EQ(without(without(seen, "out: "), "log: S"), expected);
  controller->confirmButtonClicked(nullptr);
  EXPECT_EQ(transcript.take(), (Lines{"log: confirm button clicked", "finish closed"}));
}

TEST_F(Shell, PlacesTheFinishDialogByItsWholeHalfWidth) {
  start();
  for (const auto& [content, image_x] :
       {std::pair<std::optional<Size>, int>{std::nullopt, 107}, {Size{341.9, 280}, 117}}) {
    application.finish_content_size = content;
    controller->showCustomDialog();
    const Lines lines = transcript.take();
    EXPECT_EQ(std::count(lines.begin(), lines.end(),
                         "image " + std::to_string(image_x) + " 160 106 100 qm5_OK"),
              1);
  }
  application.finish_content_size = Size{1e30, 280};
  EXPECT_DEATH(controller->showCustomDialog(), "without a usable width");
  application.has_main_window = false;
  EXPECT_DEATH(controller->showCustomDialog(), "no main window");
}

TEST_F(Shell, DropsProgressWhileNoProgressWindowIsUp) {
  start();
  transcript.take();
  controller->callbackUpdateProgress("title", 50.0);
  application.drain();
  EXPECT_EQ(transcript.take(), Lines{});
  // An error then leaves the progress window alone.
  controller->dialogErrorStop("T", "M");
  EXPECT_EQ(transcript.take(), Lines{"alert on main: T | M [OK]"});
  application.answer(kModalResponseAbort);
  EXPECT_EQ(transcript.take(), Lines{}) << "only the button counts";
}

TEST_F(Shell, AsksBeforeItEndsFromBothWindows) {
  start();
  transcript.take();
  const std::string question =
      ": Exit confirmation | Firmware flashing did not finish.\nDo you really want to exit? "
      "[Quit] [Don't quit]";
  for (const auto& [window, button, line] :
       {std::tuple{application.main, "btnExit", "log: Exit Click"},
        {application.progress, "btnAbort", "log: Abort button clicked"}}) {
    window->press(button);
    const std::string name = window == application.main ? "main" : "progress";
    const std::string asked = std::string("alert on ").append(name).append(question);
    EXPECT_EQ(transcript.take(), (Lines{line, asked}));
    EXPECT_FALSE(application.sheet_came_unasked);
    application.answer(kOK + 1);
    EXPECT_EQ(transcript.take(), Lines{});
    if (window == application.progress) {
      window->close_requested();
      window->close_requested();
      EXPECT_EQ(transcript.take(), Lines{asked}) << "once, and nobody pressed Abort";
      application.answer(kOK + 1);
    }
    window->press(button);
    transcript.take();
    application.answer(kOK);
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  }
}

// From outside: by a signal, or at the session's end.
TEST_F(Shell, EndsWhenAskedFromOutsideUnlessAnUpdateRunsWhichAsksOnce) {
  start();
  int declined = 0;
  const auto interrupt = [&] { application.requestTermination([&] { ++declined; }); };
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
      if (by_button) application.progress->press("btnAbort");
      interrupt();
      interrupt();
      EXPECT_EQ(alerts(), 1);
      EXPECT_EQ(application.sheet_came_unasked, !by_button);
      application.answer(by_button ? kModalResponseAbort : kOK + 1);
      EXPECT_EQ(std::exchange(declined, 0), 2);
    }
    interrupt();
    alerts();
    application.answer(kOK);
    EXPECT_EQ(transcript.take(), Lines{"terminate"});
  };
  clock.during_sleep = [&](double) { duringRun(during_run); };
  application.main->press("btnNext");
  application.runUntilAlert();
  application.answer(kOK);
  interrupt();
  EXPECT_EQ(transcript.take().back(), "terminate");
}

TEST_F(Shell, TellsAtOnceThatTheDeviceLeftWhileChecking) {
  start();
  attach(0x4201, 1000);
  application.refuses_to_stay_awake = true;
  std::vector<std::string> told;
  clock.during_sleep = [&](double) {
    if (told.size() == 2) detach();
    if (told.size() == 4) return;
    duringRun([&] {
      for (const std::string box : {"sleepStatus", "progress deviceStatus"})
        told.push_back(application.shown[box]);
    });
  };
  application.main->press("btnNext");
  application.runUntilAlert();
  application.answer(kOK);
  EXPECT_THAT(told, testing::ElementsAre(testing::StartsWith("The updater can't keep"), "", told[0],
                                         testing::HasSubstr("can take up to five minutes")));
}

TEST_F(Shell, SaysThatAnotherDeviceCameDuringTheUpdateAndNotThatOneLeft) {
  start();
  attach(0x4201);
  USBDevice another;
  another.id = 99;
  clock.during_sleep = [&](double) {
    application.waitUntilModal();
    NotificationCenter::defaultCenter().post({USBDeviceConnected, Dictionary{{"device", another}}});
  };
  for (const std::string before : {"Another QM5 was connected during the update. ", ""}) {
    application.main->press("btnNext");
    application.runUntilAlert();
    application.answer(kOK);
    EXPECT_EQ(application.shown["runStatus"], before + "The QM5 did not report its version.");
  }
}

TEST_F(Shell, SaysBeforeNextWhatIsInThePackage) {
  const std::string known = "Firmware version in this package: 4208";
  for (const auto& [image, is_development, text] :
       {std::tuple{FileContents(Bytes(3)), false, known},
        {Bytes(3), true, known + "\nA development image: it is for the software QM5 alone."},
        {kGone, true,
         "This package has no firmware that can be read: nothing can\nbe updated. "
         "Install the package again."}}) {
    application.image = image;
    application.is_development_image = is_development;
    start();
    EXPECT_EQ(application.shown["txtPackagedVersion"], text);
  }
}

TEST_F(Shell, SeesTheUpdateToItsEndWithoutADisplay) {
  start();
  EXPECT_EQ(application.delegate->applicationLostDisplay(), EXIT_FAILURE) << "no update runs";
  std::optional<int> status;
  std::optional<int> status_of_its_end;  // while its alert or the finish dialog is up
  const auto note_end = [&] { status_of_its_end = application.delegate->applicationLostDisplay(); };
  application.during_finish_dialog = note_end;
  clock.during_sleep = [&](double) {
    if (status) return;
    application.waitUntilModal();
    // Serves nothing before the job has ended.
    application.mainQueueAsync([&] { status = application.delegate->applicationLostDisplay(); });
  };
  for (const auto& [version, expected, line] :
       {std::tuple{0, EXIT_FAILURE, "No QM5 device !"},
        {0x4208, EXIT_SUCCESS, "QM5 no need to update ! Current QM5 version: 4208 No need"},
        {0x4201, EXIT_SUCCESS, "Firmware update successful! New version(QM5 v.4208) Please"}}) {
    if (version != 0) attach(static_cast<std::uint16_t>(version));
    status.reset();
    transcript.take();
    application.main->press("btnNext");
    if (application.sheet) {
      note_end();
      application.answer(kOK);
      EXPECT_EQ(application.delegate->applicationLostDisplay(), EXIT_FAILURE);
    }
    EXPECT_EQ(status, expected);
    EXPECT_EQ(std::exchange(status_of_its_end, std::nullopt), expected);
    const Lines lines = transcript.take();
    for (const std::string kind : {"out: ", "log: "}) {
      const std::string start = kind + "The display has gone. The update ended: " + line;
      EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                              [&](const std::string& said) { return said.starts_with(start); }),
                2);
    }
  }
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
    application.main->press("btnNext");
  };
  for (const std::string outlet :
       {"deviceStatus", "sleepStatus", "txtPackagedVersion", "btnExit", "btnNext", "progressBar"}) {
    application.main->missing_outlets = application.progress->missing_outlets = {outlet};
    EXPECT_DEATH(press_next(), "fatal error: no (button )?" + outlet);
  }
  application.progress.reset();
  EXPECT_DEATH(press_next(), "no progress window");
}

}  // namespace
}  // namespace qm5::test
