// What the windows tell beside the run: the pace of an update, and the state of the bus.
#include "app_shell/bus_status.h"
#include "app_shell/progress_window.h"
#include "app_shell/update_pace.h"
#include "support/linked_device.h"
#include "support/named_cases.h"
#include "support/scripted_toolkit.h"

namespace qm5::test {
namespace {

struct Moment {
  std::string_view name;
  std::vector<std::pair<double, double>> steps;  // percent, seconds
  double now;
  std::string told;  // all three texts, a line each
};
QM5_PRINTS_NAME(Moment)

class Pace : public testing::Test, public testing::WithParamInterface<Moment> {};

TEST_P(Pace, TellsWhatIsSoAndNoMoreThanIsKnown) {
  const auto& [name, steps, now, told] = GetParam();
  UpdatePace pace(0);
  for (const auto& [percent, time] : steps) pace.progressed(percent, time);
  EXPECT_EQ(pace.elapsed(now) + "\n" + pace.remaining(now) + "\n" + pace.phase(now), told);
}

const std::string kWriting = "Writing the new firmware.";
const std::string kWaiting = "Waiting for the QM5 to respond.";
const std::string kChecking = "The QM5 is checking the new firmware. This can take minutes.";

const std::vector<Moment> kMoments = {
    {"start", {}, 0.9, "Time: 0:00\n\nLooking for the QM5."},
    {"nothing for long", {}, 6, "Time: 0:06\n\n" + kWaiting},
    {"too early", {{1, 1}, {0, 2}, {4, 9}}, 9, "Time: 0:09\n\n" + kWriting},
    {"too short", {{1, 1}, {0, 2}, {50, 4.9}}, 4.9, "Time: 0:04\n\n" + kWriting},
    {"the opening does not count",
     {{1, 1}, {0, 20}, {9, 38}},
     38,
     "Time: 0:38\nAbout 3 minutes left to write\n" + kWriting},
    {"nearly written",
     {{0, 2}, {50, 32}},
     32,
     "Time: 0:32\nLess than a minute left to write\n" + kWriting},
    {"a stall", {{0, 2}, {50, 32}}, 122, "Time: 2:02\nAbout 2 minutes left to write\n" + kWaiting},
    {"a last block cut short", {{0, 2}, {98, 32}, {100, 32}}, 32, "Time: 0:32\n\n" + kChecking},
    {"checking", {{0, 2}, {98, 32}, {99, 32}}, 3725, "Time: 62:05\n\n" + kChecking}};
INSTANTIATE_TEST_SUITE_P(Moments, Pace, testing::ValuesIn(kMoments), named);

TEST(ProgressTexts, AreRenewedEverySecondAndCountFromTheBeginningOfEachUpdate) {
  Transcript transcript;
  ScriptedToolkit toolkit(transcript);
  VirtualClock clock;
  const ProgressWindowController window(toolkit.progress);
  auto& content = dynamic_cast<ProgressViewController&>(*window.contentViewController);
  for (int run = 0; run < 2; ++run) {
    clock.sleep(100);
    content.updateBegan();
    EXPECT_EQ(toolkit.shown["txtPhase"], "Looking for the QM5.");
    content.progressed(0);
    clock.sleep(50);
    content.progressed(25);
    toolkit.progress->tick();
    EXPECT_EQ(toolkit.shown["txtElapsed"], "Time: 0:50");
    EXPECT_EQ(toolkit.shown["txtRemaining"], "About 3 minutes left to write");
    EXPECT_EQ(toolkit.shown["txtPhase"], kWriting);
  }
}

using BusLine = LinkedDevice;

TEST_F(BusLine, TellsWhatTheDriverHasAndWhyItHasNone) {
  ScriptedToolkit toolkit(transcript);
  const auto status = BusStatus::follow();
  status->showIn(toolkit.main->statusLine("busStatus"));
  const auto told = [&] { return toolkit.drain(), toolkit.shown["busStatus"]; };
  const auto examine = [](std::uint64_t id, IOReturn result) {
    NotificationCenter::defaultCenter().post(
        {USBDeviceExamined, Dictionary{{"id", id}, {"result", result}}});
  };
  EXPECT_EQ(told(), "No QM5 is connected.");
  examine(8, kIOReturnNotPermitted);
  EXPECT_TRUE(told().starts_with("A QM5 is connected, but you may not open it. ")) << told();
  attach();
  examine(7, kIOReturnSuccess);
  EXPECT_EQ(told(), "A QM5 is connected.") << "the second one";
  postDisconnected(Dictionary{{"id", std::uint64_t{7}}});
  examine(8, kIOReturnSuccess);  // as when the Driver was not listening yet
  EXPECT_EQ(told(),
            "A QM5 is connected, but it does not respond.\nUnplug it and plug it in again.");
}

}  // namespace
}  // namespace qm5::test
