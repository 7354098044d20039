// The whole program in one process: its windows on Qt's offscreen platform, its threads,
// libusb, and the software QM5 on the emulated bus.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <random>

#include "computer/wakefulness/sleep_inhibitor.h"
#include "device_link/driver.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "simulator/usb_bus/emulated_bus.h"
#include "support/desk.h"
#include "support/update_requests.h"

namespace qm5::test {
namespace {

// Buses that take connections and never answer.
void hangBuses() {
  sockaddr_un address{AF_UNIX, {}};
  const std::string name = "qm5-hung-bus-" + std::to_string(getpid());
  name.copy(address.sun_path + 1, name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const int bus = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(bus, reinterpret_cast<const sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(bus, 5), 0);
  for (const char* address_of : {"DBUS_SYSTEM_BUS_ADDRESS", "DBUS_SESSION_BUS_ADDRESS"})
    ASSERT_EQ(setenv(address_of, ("unix:abstract=" + name).c_str(), 1), 0);
}

void await(bool attached) {
  while (global_driver->deviceInfo().has_value() != attached) std::this_thread::yield();
}

// The QM5 leaves at the request of that number, if it is not 0. The next run then succeeds.
void updateAfterAnUnplug(Desk& desk, EmulatedBus& bus, std::size_t moment) {
  if (moment > 0) {
    desk.qm5->addFault({.kind = FaultKind::unplug, .number = moment});
    bus.plug();
    await(true);
    desk.click("Next");
    desk.awaitStop();
    EXPECT_EQ(desk.shown(), kAlert | kFailed);
    await(false);
    desk.click("OK");
    desk.qm5->clearRequests();
  }
  bus.plug();
  await(true);
  desk.click("Next");
  desk.awaitStop();
  EXPECT_EQ(desk.shown(), kFinish);
  Lines seen, expected;
  for (const RequestRecord& request : desk.qm5->requests())
    seen.push_back(describe({request.setup, isRead(request.setup) ? Bytes{} : request.data}));
  for (const WireRequest& request : updateRequests(smallImage()))
    expected.push_back(describe(request));
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(desk.qm5->breaches(), std::vector<std::string>{});
  EXPECT_EQ(desk.qm5->flash(), flashContents(ByteView(smallImage()).subspan(kImagePayloadStart)));
  desk.qm5->powerCycle();
  EXPECT_EQ(desk.qm5->version(), 0x4208);
  EXPECT_FALSE(desk.ask([] { return QApplication::windowIcon().availableSizes().isEmpty(); }));
  for (const std::string& line : desk.transcript.newLines())
    EXPECT_FALSE(line.starts_with("log: The computer may")) << "it waited for the system bus";
}

// Each time in a process of its own: without an unplug, at each of the first requests, which are
// the openings of an update, and at any others.
TEST(Program, SendsExactlyTheRequestsOfAnUpdateAlsoAfterAnUnplug) {
  // By the last two, the device has taken the image and comes back with its new version.
  const std::size_t requests = updateRequests(smallImage()).size() - 2;
  std::mt19937 random(20'260'101);
  std::vector<std::size_t> moments(effort<std::size_t>(17, 301));
  for (std::size_t i = 0; i < moments.size(); ++i)
    moments[i] = i < 12 ? i : 1 + random() % requests;
  std::optional<EmulatedBus> bus;
  const auto caseOf = [&](std::size_t number) {
    const std::size_t moment = moments[number];
    return Desk::Case{"unplug at " + std::to_string(moment), true, [&, moment](Desk& desk) {
                        desk.shown();  // by now all is there
                        updateAfterAnUnplug(desk, *bus, moment);
                      }};
  };
  EXPECT_TRUE(Desk::tryAll("updates on the bus, all but one after an unplug in the middle",
                           moments.size(), caseOf, [&](Desk& desk, const auto& begin) {
                             Desk::wholeProgram(desk, [&] {
                               begin();
                               ASSERT_EQ(chdir("/"), 0);  // a desktop may start it anywhere
                               hangBuses();
                               desk.qm5.emplace();
                               bus.emplace(*desk.qm5);
                               setUSBRegistry(&LibusbRegistry::create());
                               setWakefulness(new SleepInhibitor);
                             });
                           }));
}

}  // namespace
}  // namespace qm5::test
