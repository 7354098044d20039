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
  std::string elapsed;
  std::string remaining;
  std::string phase;
};
QM5_PRINTS_NAME(Moment)

class Pace : public testing::Test, public testing::WithParamInterface<Moment> {};

TEST_P(Pace, TellsWhatIsSoAndNoMoreThanIsKnown) {
  UpdatePace pace(0);
  for (const auto& [percent, time] : GetParam().steps) pace.progressed(percent, time);
  EXPECT_EQ(pace.elapsed(GetParam().now), GetParam().elapsed);
  EXPECT_EQ(pace.remaining(GetParam().now), GetParam().remaining);
  EXPECT_EQ(pace.phase(GetParam().now), GetParam().phase);
}

const std::string kWriting = "Writing the new firmware.";
const std::string kChecking = "The QM5 is checking the new firmware. This can take minutes.";

INSTANTIATE_TEST_SUITE_P(
    Moments, Pace,
    testing::Values(
        Moment{"start", {}, 0.9, "Time: 0:00", "", "Looking for the QM5."},
        Moment{"nothing for long", {}, 6, "Time: 0:06", "", "Waiting for the QM5 to respond."},
        Moment{"too early", {{1, 1}, {0, 2}, {4, 9}}, 9, "Time: 0:09", "", kWriting},
        Moment{"too short", {{1, 1}, {0, 2}, {50, 4.9}}, 4.9, "Time: 0:04", "", kWriting},
        Moment{"the opening does not count",
               {{1, 1}, {0, 20}, {9, 38}},
               38,
               "Time: 0:38",
               "About 3 minutes left to write",
               kWriting},
        Moment{"nearly written",
               {{0, 2}, {50, 32}},
               32,
               "Time: 0:32",
               "Less than a minute left to write",
               kWriting},
        Moment{"a stall",
               {{0, 2}, {50, 32}},
               122,
               "Time: 2:02",
               "About 2 minutes left to write",
               "Waiting for the QM5 to respond."},
        Moment{"an incomplete last block",
               {{0, 2}, {98, 32}, {100, 32}},
               32,
               "Time: 0:32",
               "",
               kChecking},
        Moment{"checking", {{0, 2}, {98, 32}, {99, 32}}, 3725, "Time: 62:05", "", kChecking}),
    named);

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
