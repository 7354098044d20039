// Faults: each kind at its point, once, and a good update after it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "simulator/faulty_qm5.h"
#include "simulator/options.h"
#include "simulator/trace.h"
#include "tests/simulator_script.h"

namespace qm5 {
namespace {

script::Port portTo(FaultyQm5& device) {
  return [&device](const ControlSetup& setup, const Bytes& data) {
    return device.control(setup, data);
  };
}

/// What the host reads of the second SFWd's reply (or gets of the fifth request) under a
/// fault written as on the command line.
struct Case {
  std::string name;
  std::string fault;
  ControlStatus status;
  Bytes reply;
};
class OneFault : public testing::TestWithParam<Case> {};
TEST_P(OneFault, HitsItsPointOnceAndGoesWithAPowerCycle) {
  FaultyQm5 device;
  const auto fault = parseFault(GetParam().fault);
  ASSERT_TRUE(fault);
  device.addFault(*fault);
  const auto port = portTo(device);
  script::runTask(port, "SFWi", {});
  script::runTask(port, "SFWd", Bytes(64, 0x20));
  script::write(port, 0x1F, Bytes(64, 0x21));
  script::write(port, 0x1E, script::bytes("SFWd"));
  for (int poll = 0; poll < 3; ++poll) script::read(port, 0x1E, 5);
  const ControlResult reply = script::read(port, 0x1F, 2);
  EXPECT_EQ(reply.status, GetParam().status);
  EXPECT_EQ(reply.data, GetParam().reply);
  EXPECT_FALSE(device.faultsLeft());
  device.powerCycle();
  EXPECT_EQ(script::update(port, script::smallImage()), 0);
}
INSTANTIATE_TEST_SUITE_P(
    , OneFault,
    testing::Values(
        Case{"Stall", "SFWd:2=stall", ControlStatus::stall, {}},
        Case{"Result", "SFWd:2=result:13", ControlStatus::ok, {0x40, 0x0D}},
        Case{"ShortByOne", "SFWd:2=short:1", ControlStatus::ok, {0x40}},
        Case{"Empty", "SFWd:2=short:9", ControlStatus::ok, {}},
        Case{"Silent", "SFWd:2=silent", ControlStatus::pending, {}},
        Case{"BusyShowsTheInput", "SFWd:2=busy", ControlStatus::ok, {0x40, 0x21}},
        Case{"Unplug", "SFWd:2=unplug", ControlStatus::gone, {}},
        Case{"StallFromARequestOn", "request:10=stall-on", ControlStatus::stall, {}},
        Case{"RefusedCommandLeavesTheInput", "request:23=stall", ControlStatus::ok, {0x40, 0x21}},
        Case{"LostChunkFailsTheTask", "request:18=stall", ControlStatus::ok, {0x40, 0x0F}}),
    [](const auto& tested) { return tested.param.name; });

TEST(Fault, ChangesTheLengthByteOfAnOpeningReply) {
  FaultyQm5 device;
  device.addFault({FaultKind::result, "SFWi", 1, 9});
  EXPECT_EQ(script::runTask(portTo(device), "SFWi", {}).at(0), 0x49);
}

TEST(Fault, ThatLastsGoesWhenFaultsAreCleared) {
  FaultyQm5 device;
  device.addFault({FaultKind::busy_for_ever, "SFWi", 1});
  script::runTask(portTo(device), "SFWi", {});
  device.clearFaults();
  EXPECT_EQ(script::update(portTo(device), script::smallImage()), 0);
}

TEST(Fault, TextThatIsNoneIsRefused) {
  for (const char* text : {"", "SFWd=stall", "SFWd:0=stall", "SFWx:1=stall", "SFWd:1=result",
                           "SFWd:1=stall:2", "request:1x=stall", "request:1=short:256"}) {
    EXPECT_FALSE(parseFault(text)) << text;
  }
}

TEST(Trace, HasALineARequest) {
  FaultyQm5 device;
  const auto start = std::chrono::steady_clock::time_point();
  std::vector<std::string> lines;
  device.setObserver([&](RequestRecord request) {
    request.time = start + std::chrono::microseconds(1'002'030);
    lines.push_back(traceLine(request, start));
  });
  script::chunk(portTo(device), 0x1E, 4, script::bytes("SFWi"));
  script::read(portTo(device), 0x10, 5);
  EXPECT_EQ(lines, (std::vector<std::string>{
                       R"({"t":1.002030,"bmRequestType":64,"bRequest":253,"wValue":30,)"
                       R"("wIndex":4,"wLength":4,"data":"53465769","status":"ok"})",
                       R"({"t":1.002030,"bmRequestType":192,"bRequest":254,"wValue":16,)"
                       R"("wIndex":0,"wLength":5,"data":"","status":"stall"})"}));
}

}  // namespace
}  // namespace qm5
