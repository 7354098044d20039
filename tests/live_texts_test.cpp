// What the windows tell beside the run where the sweep of faults, with its small image and its one
// QM5, does not get: the time left, several QM5s, and those that can't be used.
#include <algorithm>
#include <array>
#include <tuple>

#include "app_shell/device_status_presenter.h"
#include "app_shell/power_cycle_status.h"
#include "app_shell/progress_window.h"
#include "support/linked_device.h"
#include "support/scripted_application.h"
#include "update_run/update_pace.h"

namespace qm5::test {
namespace {

// What else the progress window tells, and when, the sweep of faults holds against the QM5.
TEST(Pace, TellsTheTimeLeftByTheWritingAloneAndNoSoonerThanItIsKnown) {
  using Steps = std::vector<std::pair<std::size_t, double>>;  // number, seconds
  for (const auto& [steps, now, left] :
       {std::tuple<Steps, double, std::string>{{{1, 1}, {2, 2}, {6, 9}}, 9, ""},
        {{{1, 1}, {2, 2}, {52, 4.9}}, 4.9, ""},
        {{{1, 1}, {2, 20}, {12, 38}}, 38, "About 3 minutes left to write"},
        {{{2, 2}, {52, 61}}, 66, "Less than a minute left to write"},  // it does not grow
        {{{2, 2}, {52, 32}}, 37.1, ""}}) {
    UpdatePace pace(0, 100);
    for (const auto& [number, time] : steps) pace.progressed(number, time);
    EXPECT_EQ(pace.remaining(now), left) << now;
  }
  UpdatePace looking(0, 100);
  for (const UpdatedDevice none : {UpdatedDevice::notYetThere, UpdatedDevice::away}) {
    looking.deviceIs(none);
    EXPECT_EQ(looking.phase(0.9), "Looking for the QM5.");
  }
}

void examine(std::uint64_t id, IOReturn result, const std::string& location = "") {
  NotificationCenter::defaultCenter().post(
      {USBDeviceExamined, Dictionary{{"id", id}, {"result", result}, {"location", location}}});
}

class Bus : public LinkedDevice {
 protected:
  void announce(std::uint64_t id) { postConnected(Dictionary{{"device", device.record(id)}}); }
  void arrive(std::uint64_t id) { arrive(id, id); }
  void arrive(std::uint64_t id, std::uint64_t port) {
    announce(id);
    examine(id, kIOReturnSuccess, "1-4." + std::to_string(port));
  }
  void remove(std::uint64_t id) { postDisconnected(Dictionary{{"id", id}}); }
  std::string shownIn(const std::string& control) {
    application.drain();
    return application.shown[control];
  }

  ScriptedApplication application{transcript};
  std::shared_ptr<DeviceStatusPresenter> status = DeviceStatusPresenter::follow();
};

TEST_F(Bus, WarnsInTheProgressWindowOfAnotherQM5InEachRunAnew) {
  status->showIn(application.main->statusIndicator("deviceStatus"));
  ProgressWindowController window(application.progress, status);
  auto& content = dynamic_cast<ProgressViewController&>(*window.contentViewController);
  const auto expect_warning = [&](const std::string& text) {
    EXPECT_EQ(shownIn("progress deviceStatus").substr(0, text.size()), text);
  };
  std::uint64_t id = 1;
  for (int run = 0; run < 2; ++run, ++id) {
    const std::uint64_t first = id;
    arrive(id);
    content.updateBegan(100);
    EXPECT_EQ(shownIn("sleepStatus"), "");
    content.sleepIsNotPrevented();
    EXPECT_EQ(shownIn("sleepStatus"), kMaySleepText);
    clock.sleep(50);
    content.progressed({.number = 1, .percent = 1});
    EXPECT_EQ(shownIn("progress deviceStatus"), "");
    arrive(id + 1);
    expect_warning("Another QM5 was connected");
    remove(id);
    expect_warning("Another QM5 was connected");  // it is no other one since
    for (const std::string text : {"The QM5 was disconnected and is back.", "Another QM5 was"}) {
      remove(++id);
      expect_warning("The QM5 has been disconnected");
      arrive(id + 1, text.starts_with("The") ? first : id + 1);
      expect_warning(text);
    }
    remove(++id);
    expect_warning("The QM5 has been disconnected");
    window.close();
  }
  arrive(id);
  expect_warning("The QM5 has been disconnected");  // nothing is told once it is closed
}

TEST_F(Bus, TellsWhatTheDriverHasAndWhyItHasNone) {
  status->showIn(application.main->statusIndicator("deviceStatus"));
  const auto shows = [&](const std::string& text) {
    EXPECT_TRUE(shownIn("deviceStatus").starts_with(text)) << application.shown["deviceStatus"];
  };
  shows("No QM5 is connected.");
  examine(1, kIOReturnError);
  shows("A QM5 is connected, but it could not be opened.\nUnplug it");
  examine(8, kIOReturnError);
  shows("2 QM5s are connected, but none can be used.\nUnplug them all");
  remove(8);
  examine(2, kIOReturnNotPermitted);
  shows("2 QM5s are connected, but none can be used. Have the package");
  remove(1);
  shows("A QM5 is connected, but you may not open it. ");
  remove(2);
  arrive(3);
  shows("A QM5 is connected.");
  arrive(4);
  shows("2 QM5s are connected. An update goes to the one at port 1-4.4.\n");
  remove(4);
  shows("A QM5 is connected, but the updater followed another one, which has left. ");
  announce(5);
  for (const IOReturn result : {kIOReturnNoDevice, kIOReturnSuccess}) {
    examine(result == kIOReturnSuccess ? 5 : 7, result);  // 7 left while the monitor was set up
    shows("2 QM5s are connected. An update goes to the one connected last.\n");
  }
  remove(5);
  remove(3);
  examine(6, kIOReturnSuccess);  // as when the Driver was not listening yet
  shows("A QM5 is connected, but it came before the updater was ready.\nUnplug it");
  remove(6);
  shows("No QM5 is connected.");
}

// The monitor's thread and its queue post side by side, and a removal may be drained before the
// arrival of the same device is. Two devices; the second one stays in every other order.
TEST_F(Bus, IsKnownRightWhateverTheOrderOfPosts) {
  std::uint64_t id = 0;
  for (const bool both_leave : {true, false}) {
    for (const IOReturn result : {kIOReturnSuccess, kIOReturnError}) {
      // Announced, examined and removed: the first device, then the second one.
      std::array<int, 6> order = {0, 1, 2, 3, 4, 5};
      do {
        const auto place = [&](int post) { return std::find(order.begin(), order.end(), post); };
        if (place(0) > place(1) || place(3) > place(4)) continue;
        id += 2;
        const std::uint64_t second = id + 1;
        for (const int post : order) {
          const std::uint64_t which = post < 3 ? id : second;
          if (post % 3 == 0 && result == kIOReturnSuccess) announce(which);
          if (post % 3 == 1) examine(which, result);
          if (post % 3 == 2 && (post == 2 || both_leave)) remove(which);
        }
        const DeviceState state = status->state();
        const bool has_second =
            global_driver->deviceInfo() && global_driver->deviceInfo()->id == second;
        EXPECT_EQ(state.present, both_leave ? std::set<std::uint64_t>{} : std::set{second});
        EXPECT_EQ(state.used.has_value(), !both_leave && has_second);
        EXPECT_EQ(state.availability == DeviceAvailability::absent, both_leave);
        remove(id);
        remove(second);
      } while (std::next_permutation(order.begin(), order.end()));
    }
  }
}

// The arrival and the removal of the updated QM5 are reported while the dialog comes up, which has
// no room. What a QM5 reports that answers, the sweep of faults tells.
TEST_F(Bus, AsksTheQM5OnceThatCameBackToItsPortOrSaysWhyNot) {
  const std::string off =
      "The QM5 is off, unplugged or at another USB port. Waiting for it at the port it had.";
  std::uint64_t id = 1;
  for (const std::string end :
       {", but the computer had no thread", ", but another QM5 was connected",
        " and did not report its version. Start the updater again"}) {
    const bool is_asked = end.starts_with(" and");
    const auto check = PowerCycleCheck::follow(
        [&](std::function<void()> step) { application.mainQueueAsync(std::move(step)); });
    const auto finish = [&] {
      application.main->has_room = false;
      application.shown["runStatus"].clear();
      check->begin({.device = status->state(),
                    .expected_version = "4208",
                    .submit =
                        [&](const std::function<void()>& job) {
                          if (!end.ends_with("thread")) job();
                          return !end.ends_with("thread");
                        },
                    .show = powerCycleStatus(application.main,
                                             application.main->statusIndicator("runStatus"))});
      return shownIn("runStatus");
    };
    announce(id);
    EXPECT_EQ(finish(), "");
    arrive(id);
    remove(id);
    EXPECT_EQ(shownIn("runStatus"), off);
    examine(id, kIOReturnSuccess, "1-4." + std::to_string(id));  // told after its removal
    examine(98 + id, kIOReturnNoDevice, "1-4." + std::to_string(id));
    arrive(id + 1);
    examine(99 + id, kIOReturnError, "1-1");  // an update never went to this one
    EXPECT_EQ(shownIn("runStatus"), off) << "at another port, or gone again";
    announce(id);  // as when the Driver has not heard of the removal yet
    EXPECT_EQ(finish(), off);
    arrive(50 + id);
    EXPECT_EQ(shownIn("runStatus"), off) << "at another port than the last one";
    remove(50 + id);
    clock.during_sleep = [&](double) {
      EXPECT_EQ(application.shown["runStatus"], "The QM5 is back. Its version is being read.");
      is_asked ? remove(id + 2) : announce(99);
    };
    arrive(id + 2, id + 1);
    if (is_asked) {
      EXPECT_EQ(shownIn("runStatus"), off) << "it left at once";
      clock.during_sleep = {};
      for (int reads = 0; reads < 2; ++reads) device.expectRead(0x06, 9, std::nullopt);
      device.during_request = [&] {
        remove(id + 3);
        arrive(id + 5, id + 1);
      };
      for (const std::uint64_t again : {id + 3, id + 4}) {
        announce(again);
        examine(again, kIOReturnSuccess);  // its port is not known
        EXPECT_TRUE(shownIn("runStatus").starts_with("The QM5 came back and did not"));
        remove(again);
      }
      remove(id + 5);
      EXPECT_EQ(clock.newSleeps(), (std::vector<double>{1.0, 1.0, 1.0, 1.0}));
    }
    EXPECT_TRUE(shownIn("runStatus").starts_with("The QM5 came back" + end));
    id += 3;
  }
}

}  // namespace
}  // namespace qm5::test
