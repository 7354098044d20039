// The shell's logic without a toolkit: every outcome of a run, in order, with the thread.
#include "app_shell/view_controller.h"

#include <pthread.h>

#include <algorithm>
#include <new>

#include "app_shell/exit_confirmation.h"
#include "app_shell/progress_window.h"
#include "simulator/device/faulty_qm5.h"
#include "support/named_cases.h"
#include "support/whole_app.h"

namespace qm5::test {
namespace {

constexpr int kOK = kAlertFirstButtonReturn;

class Shell : public testing::Test, protected WholeApp {
 protected:
  Shell() : WholeApp(smallImage()) {}
  ~Shell() override { bus.unplug(); }
  // In place of the one before, if any.
  void attach(std::uint16_t version) {
    device.emplace(Qm5Model({.version = version}));
    bus.plug(*device);
  }
  std::shared_ptr<ViewController> controller() const {
    return std::static_pointer_cast<ViewController>(application.controller);
  }

  std::optional<FaultyQm5> device;
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
  FileContents image;
  Lines lines;  // between the presence check and the alert
  std::string_view alert;
  std::string_view reason;  // in the main window; empty: no failure
};
QM5_PRINTS_NAME(Ending)

class Run : public Shell, public testing::WithParamInterface<Ending> {};

// Each twice in a row: "OK" leads back to where the next run can start.
TEST_P(Run, EndsInItsAlertAndCanBeRepeated) {
  const auto& [name, version, image, lines, alert, reason] = GetParam();
  application.image = image;
  start();
  if (version) attach(*version);
  if (name == "no version") device->addFault({.kind = FaultKind::stall_on, .number = 1});
  Lines expected = kNext;
  if (version) expected.emplace_back("out: Found TI SOC on IOKit");
  expected = expected + lines;
  const auto before_report = static_cast<std::ptrdiff_t>(expected.size());
  const std::string shown = "alert on main: " + std::string(alert) + " [OK]";
  const bool from_job = name == "no image";  // which asks for the alert itself
  expected = expected + (from_job ? Lines{"stopModal [job]", "progress closed [job]",
                                          shown + " [job]", "may sleep", "stopModal"}
                                  : kDown + Lines{shown, "may sleep"});
  for (std::size_t round = 1; round <= 2; ++round) {
    transcript.newLines();
    const bool is_behind = round == 2;  // another program's windows
    if (is_behind) {
      application.delegate->applicationIsActive(false);
      expected.insert(expected.begin() + before_report, "notification: " + std::string(alert));
    }
    application.main->press("btnNext");
    application.runUntilAlert();
    application.drain();
    EXPECT_TRUE(application.sheet_came_unasked);
    EXPECT_EQ(byThread(transcript.newLines()), byThread(expected));
    EXPECT_EQ(application.shown["runStatus"], reason);
    EXPECT_EQ(application.shown["btnDetails"], reason.empty() ? "" : "shown");
    application.main->press("btnDetails");
    const std::string& details = application.shown["text"];
    EXPECT_EQ(details.starts_with("check if device exist.\nChecking for TI"), !reason.empty());
    EXPECT_EQ(details.ends_with(lines.back().substr(5) + "\n"), !reason.empty());
    EXPECT_EQ(clock.newSleeps(), std::vector<double>{1.0});
    if (is_behind) {
      application.pressNotification("a token");
      application.drain();
      application.delegate->applicationIsActive(true);
      EXPECT_EQ(transcript.newLines(), (Lines{"in front with a token", "notification gone"}));
    }
    application.answer(kOK);
    EXPECT_EQ(transcript.newLines(),
              (Lines{"log: OK pressed", "btnExit enabled", "btnNext enabled"}));
    if (version) {
      EXPECT_EQ(device->requestCount(), round) << "the version alone";
    }
  }
}

const std::string kCheck = "There is no QM5 connected!\nCheck your QM5 connection then try again.";
const std::string kNoDevice = "No QM5 device ! | " + kCheck;
const std::string kNoVersion = "Get customer version error ! | " + kCheck;
constexpr std::string_view kNoNeed =
    "QM5 no need to update ! | Current QM5 version: 4208\nNo need to update.";
constexpr std::string_view kDataError =
    "QM5 firmware update data error! | Attached binary file data error.\n"
    "Please download this program and try again.";
constexpr std::string_view kFlashError =
    "Flash firmware error | Flash ti dmc firmware error, please try again.";
const std::string kFound = "log: Device found. Out customer version: ";
const std::string kFile = "The firmware file of this package is ";
const std::string kNothing = "; nothing was written to the QM5.";
const std::string kMissing = kFile + "missing or could not be read" + kNothing;
const std::string kShort = kFile + "no image, as it has only 771 bytes" + kNothing;
const std::string kOther = kFile + "no image, as it begins like none" + kNothing;
const FileError kGone = {"gone"};
const std::vector<Ending> kEndings = {
    {"no device",
     {},
     Bytes(),
     {"log: str_NO_DMC"},
     kNoDevice,
     "The updater found no QM5 that it could use."},
    {"no version",
     1,
     kGone,
     {"log: Get customer version error."},
     kNoVersion,
     "The QM5 did not report its version."},
    {"same version", 0x4208, kGone, {kFound + "4208"}, kNoNeed, ""},
    {"no image", 0x420A, kGone, {kFound + "420A"}, kDataError, kMissing},
    {"bad image",
     0x4209,
     Bytes(771),
     {kFound + "4209", "out: Invalid binary file. Binary file length:771"},
     kFlashError,
     kShort},
    {"no magic",
     0x4209,
     Bytes(772),
     {kFound + "4209", "out: Invalid binary header."},
     kFlashError,
     kOther}};
INSTANTIATE_TEST_SUITE_P(Endings, Run, testing::ValuesIn(kEndings), named);

TEST_F(Shell, EndsARunInItsAlertWhereTheComputerHasNothingLeftForIt) {
  attach(0x4201);
  during_sleep = [] { throw std::bad_alloc(); };
  EXPECT_EQ(update().title, "Flash firmware error");
  EXPECT_EQ(application.shown["runStatus"], "The computer has not enough memory for the update.");
  pthread_attr_t too_large;
  pthread_attr_init(&too_large);
  pthread_attr_setstacksize(&too_large, std::size_t{1} << 46);
  pthread_setattr_default_np(&too_large);
  EXPECT_EQ(update().title, "Flash firmware error");
  EXPECT_EQ(application.shown["runStatus"], "The computer had no thread left for the update.");
}

Lines without(Lines lines, std::string_view prefix) {
  std::erase_if(lines, [&](const std::string& line) { return line.starts_with(prefix); });
  return lines;
}

TEST_F(Shell, ShowsEachStepAndEndsInTheFinishDialog) {
  attach(0x420A);
  application.refuses_to_stay_awake = true;
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
    seen = transcript.newLines();
    EXPECT_EQ(application.shown["txtPhase"], "All has been sent.");
    EXPECT_EQ(application.shown["sleepStatus"], kMaySleepText);
    application.finish->press("Confirm & Exit");
    EXPECT_EQ(transcript.newLines(), Lines{"terminate"});
  };
  transcript.newLines();
  application.main->press("btnNext");
  // The job's own lines come when they come; those of the main thread keep their order.
  EXPECT_EQ(without(without(seen, "out: "), "log: S"), expected);
  controller()->confirmButtonClicked(nullptr);
  EXPECT_EQ(transcript.newLines(), (Lines{"log: confirm button clicked", "finish closed"}));
}

TEST_F(Shell, PlacesTheFinishDialogByItsWholeHalfWidth) {
  for (const auto& [content, image] :
       {std::pair<std::optional<Size>, std::string>{std::nullopt, "image 107 160 106 100 qm5_OK"},
        {Size{341.9, 280}, "image 117 160 106 100 qm5_OK"}}) {
    application.finish_content_size = content;
    controller()->showCustomDialog();
    const Lines lines = transcript.newLines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), image), 1);
  }
  application.finish_content_size = Size{1e30, 280};
  EXPECT_DEATH(controller()->showCustomDialog(), "without a usable width");
  application.main.reset();
  EXPECT_DEATH(controller()->showCustomDialog(), "no main window");
}

// By a button, by a window's frame, or from outside: a signal, or the session's end.
TEST_F(Shell, AsksOnceBeforeItEndsAndWithoutARunEndsAtASignal) {
  int declined = 0;
  const auto interrupt = [&] { application.requestTermination([&] { ++declined; }); };
  const auto expect_question = [&](const std::string& window, Lines lines, bool unasked) {
    lines.push_back("alert on " + window + ": Exit confirmation | Firmware flashing did not " +
                    "finish.\nDo you really want to exit? [Quit] [Don't quit]");
    EXPECT_EQ(transcript.newLines(), lines);
    EXPECT_EQ(application.sheet_came_unasked, unasked);
  };
  const auto expect_end = [&] { EXPECT_EQ(transcript.newLines(), Lines{"terminate"}); };
  transcript.newLines();
  for (const int answer : {kOK + 1, kOK}) {
    application.main->press("btnExit");
    expect_question("main", {"log: Exit Click"}, false);
    application.answer(answer);
  }
  expect_end();
  during_sleep = [&] {
    application.mainQueueAsync([&] {
      transcript.newLines();
      application.progress->press("btnAbort");
      expect_question("progress", {"log: Abort button clicked"}, false);
      interrupt();
      interrupt();
      application.progress->close_requested();
      EXPECT_EQ(transcript.newLines(), Lines{}) << "the question is open already";
      application.answer(kModalResponseAbort);
      EXPECT_EQ(declined, 2);
      interrupt();
      expect_question("progress", {}, true);
      application.answer(kOK + 1);
      EXPECT_EQ(declined, 3);
      application.progress->close_requested();
      expect_question("progress", {}, false);
      application.answer(kOK);
      expect_end();
    });
    application.whenIdle([] {});
  };
  during_alert = [&] {
    interrupt();
    expect_end();
  };
  update();
  askBeforeExit({}, true, [&] { ++declined; });  // with no window left to ask on
  EXPECT_EQ(declined, 4);
  interrupt();
  EXPECT_EQ(transcript.newLines().back(), "terminate");
}

TEST_F(Shell, SaysThatAnotherDeviceCameDuringTheUpdateAndNotThatOneLeft) {
  bool is_refused = true;
  const auto during_run = [&](const std::vector<Notification>& changes) {
    during_sleep = [&] {
      application.refusals.front()();  // the first run's
      for (const auto& each : changes) NotificationCenter::defaultCenter().post(each);
    };
    std::string reason = update().reason;
    EXPECT_EQ(application.shown["sleepStatus"], is_refused ? kMaySleepText : "");
    is_refused = false;
    return reason;
  };
  USBDevice first, another;
  first.id = 98;
  another.id = 99;
  const Notification comes = {USBDeviceConnected, Dictionary{{"device", first}}};
  const Notification other_comes = {USBDeviceConnected, Dictionary{{"device", another}}};
  const Notification leaves = {USBDeviceDisconnected, Dictionary{{"id", first.id}}};
  const std::string reason = "The QM5 did not report its version.";
  EXPECT_EQ(during_run({comes}), reason);
  EXPECT_EQ(during_run({other_comes, leaves}),
            "Another QM5 was connected during the update. " + reason);
  EXPECT_EQ(during_run({other_comes}), reason);
}

TEST_F(Shell, SaysBeforeNextWhatIsInThePackage) {
  const std::string known = "Firmware version in this package: 4208";
  const std::string none =
      "This package has no firmware that can be read: nothing can be updated. Install the package "
      "again.";
  const std::optional<std::string> path = application.image_path;
  for (const auto& [is_there, image, is_development, line, text] :
       {std::tuple{true, FileContents(Bytes(3)), false, "Got data size:3", known},
        {true, Bytes(3), true, "Got data size:3",
         known + "\nA development image: it is for the software QM5 alone."},
        {true, kGone, true, "Can not access file: gone", none},
        {false, kGone, false, "No embedded file.", none}}) {
    application.image_path = is_there ? path : std::nullopt;
    application.image = image;
    application.is_development_image = is_development;
    transcript.newLines();
    start();
    EXPECT_EQ(application.shown["txtPackagedVersion"], text);
    EXPECT_EQ(transcript.newLines(), Lines{std::string("out: ") + line});
  }
}

TEST_F(Shell, SeesTheUpdateToItsEndWithoutADisplay) {
  const auto lose_display = [this] { return application.delegate->applicationLostDisplay(); };
  EXPECT_EQ(lose_display(), EXIT_FAILURE) << "no update runs";
  std::vector<int> statuses;  // of a run that is under way, and of one whose end is shown
  application.during_finish_dialog = [&] { statuses.push_back(lose_display()); };
  during_sleep = [&] {
    // Serves nothing before the job has ended.
    application.mainQueueAsync([&] { statuses.push_back(lose_display()); });
  };
  for (const auto& [version, expected, line] :
       {std::tuple{0, EXIT_FAILURE, "No QM5 device !"},
        {0x4208, EXIT_SUCCESS, "QM5 no need to update ! Current QM5 version: 4208 No need"},
        {0x4201, EXIT_SUCCESS, "Firmware update successful! New version(QM5 v.4208) Please"}}) {
    if (version != 0) attach(static_cast<std::uint16_t>(version));
    statuses.clear();
    transcript.newLines();
    application.main->press("btnNext");
    if (application.sheet) {
      statuses.push_back(lose_display());
      application.answer(kOK);
      EXPECT_EQ(lose_display(), EXIT_FAILURE);
    }
    EXPECT_EQ(statuses, std::vector<int>(2, expected));
    const Lines lines = transcript.newLines();
    for (const std::string kind : {"out: ", "log: "}) {
      const std::string start = kind + "The display has gone. The update ended: " + line;
      const auto is_it = [&](const std::string& said) { return said.starts_with(start); };
      EXPECT_EQ(std::count_if(lines.begin(), lines.end(), is_it), 2);
    }
  }
}

using ShellDeathTest = Shell;

TEST_F(ShellDeathTest, StopsTheProgramWithoutAPartOfItsLayout) {
  const auto press_next = [this] {
    start();
    attach(0x4201);
    application.main->press("btnNext");
  };
  for (const std::string outlet :
       {"deviceStatus", "sleepStatus", "txtPackagedVersion", "btnExit", "btnNext", "runStatus",
        "btnDetails", "progressBar", "txtTitle2", "txtElapsed", "txtRemaining", "txtPhase"}) {
    application.main->missing_outlets = application.progress->missing_outlets = {outlet};
    EXPECT_DEATH(press_next(), "fatal error: no (button )?" + outlet);
  }
  application.main->missing_outlets.clear();
  application.progress.reset();
  EXPECT_DEATH(press_next(), "no progress window");
}

}  // namespace
}  // namespace qm5::test
