// The software QM5: good updates, wrong images, every breach and deviation of a host. What faults
// do to the updater, and that it is not blamed for them, fault_sweep_test shows; command_test has
// qm5-simulator around it.
#include <gtest/gtest.h>

#include "simulator/command/options.h"
#include "simulator/command/run_result.h"
#include "support/named_cases.h"
#include "support/update_requests.h"

namespace qm5::test {
namespace {

// --- a host that knows the protocol by itself ---

// The last request's result. A poll is repeated until the task has ended or is busy for long.
ControlResult send(FaultyQm5& device, const WireRequests& requests) {
  ControlResult result;
  for (const auto& [setup, sent] : requests) {
    const bool polls = isRead(setup) && setup.wValue == 0x1E;
    for (int tries = polls ? 300 : 1; tries > 0; --tries) {
      result = device.control(setup, sent);
      if (result.data == Bytes{4, 0, 0, 0, 0}) break;
    }
  }
  return result;
}

// A first block of 0xFF, a whole one, a repeated one, and a last one to be filled up.
const Bytes& image() {
  static const Bytes image = [] {
    Bytes payload(64, 0xFF);
    payload.resize(192, 0x5A);
    payload.resize(202, 0x33);
    return buildImage(payload);
  }();
  return image;
}

WireRequests operator+(WireRequests requests, const WireRequests& more) {
  requests.insert(requests.end(), more.begin(), more.end());
  return requests;
}

// Returns the last reply, with the result of the check of the signature.
Bytes update(FaultyQm5& device, ByteView of = image()) {
  return send(device, updateRequests(of)).data;
}

TEST(Update, TakesEffectWithThePowerCycleUnlessTheImageIsDamaged) {
  FaultyQm5 device;
  for (const std::size_t at : {std::size_t{200}, kImageSignatureStart, kImagePayloadStart + 70}) {
    Bytes damaged = image();
    damaged[at] ^= 0x01;
    EXPECT_EQ(update(device, damaged).at(1), 0xF) << at;
    device.powerCycle();
    EXPECT_EQ(device.version(), 0x4201) << at;
    EXPECT_FALSE(evaluateRun(device, std::nullopt).good) << at;
  }
  EXPECT_EQ(update(device).at(1), 0);
  EXPECT_EQ(device.version(), 0x4201);
  device.powerCycle();
  EXPECT_EQ(device.version(), 0x4208);
  const Bytes flash = flashContents(slice(image(), kImagePayloadStart, 202));
  EXPECT_TRUE(evaluateRun(device, flash).good) << evaluateRun(device, flash).line;
  EXPECT_FALSE(evaluateRun(device, Bytes(256)).good) << "another image";
}

// --- what a host does, request by request, and what it gets ---

WireRequests request(const ControlSetup& setup) {
  return {{setup, Bytes(isRead(setup) ? 0 : setup.wLength)}};
}
WireRequests chunk(std::uint16_t address, std::uint16_t index, std::uint16_t length) {
  return request({0x40, 0xFD, address, index, length});
}
WireRequests command(std::string_view name) {
  return registerWrite(0x1E, Bytes(name.begin(), name.end()));
}
WireRequests task(std::string_view name, std::size_t length, std::uint8_t fill = 0) {
  return taskRequests(name, Bytes(length, fill));
}
const WireRequests kOpen = task("SFWi", 0);
const WireRequests kVersion = {registerRead(0x06, 9)};
const WireRequests kStart = kVersion + kOpen;

constexpr int kStall = -1;

struct Sent {
  std::string name;  // of the breach or deviation
  WireRequests requests;
  int answer = 0;  // kStall, or the second byte of the last one: in that of a task, its result
  bool accepted = false;  // a deviation
};
QM5_PRINTS_NAME(Sent)

class Host : public testing::TestWithParam<Sent> {};
TEST_P(Host, IsAnsweredNamedAndMayUpdateAllTheSame) {
  FaultyQm5 device;
  const auto [status, comes_back, answer] = send(device, GetParam().requests);
  const int second = answer.size() < 2 ? 0 : answer[1];
  EXPECT_EQ(status == ControlStatus::stall ? kStall : second, GetParam().answer);
  send(device, {registerRead(0x1E, 5)});  // a task that was left alone ends here
  EXPECT_EQ(update(device).at(1), 0);
  const auto [line, good] = evaluateRun(device, std::nullopt);
  const std::string before =
      GetParam().accepted ? "no breach of protocol, 1 deviation: " : "of protocol: ";
  EXPECT_TRUE(!good && line.find(before + GetParam().name) != line.npos) << line;
}

const std::vector<Sent> kWrongs = {
    {"a chunk of 9 bytes", chunk(0x1F, 9, 9), kStall},
    {"a chunk of 0 bytes", chunk(0x1F, 8, 0), kStall},
    {"more bytes than the announced total of 9", chunk(0x1F, 9, 8) + chunk(0x1F, 0, 2), kStall},
    {"a chunk for register 0x1F without a total before it", chunk(0x1F, 0, 8), kStall},
    {"a total of 65 bytes for register 0x1F", chunk(0x1F, 65, 8), kStall},
    {"a total of 5 bytes for register 0x1E", chunk(0x1E, 5, 5), kStall},
    {"a new total while a write is unfinished", chunk(0x1F, 64, 8) + chunk(0x1F, 4, 4)},
    {"write to unknown register 0x9", chunk(0x09, 4, 4), kStall},
    {"read of unknown register 0x10", request({0xC0, 0xFE, 0x10, 0, 5}), kStall},
    {"read with an index of 1", request({0xC0, 0xFE, 0x1F, 1, 2}), kStall},
    {"unknown request 0x40/0xFE", request({0x40, 0xFE, 0x1F, 4, 0}), kStall},
    {"unknown command SFWx", command("SFWx") + WireRequests{registerRead(0x1E, 5)}, '!'},
    {"register 0x1F written while SFWi is busy", command("SFWi") + chunk(0x1F, 4, 4), kStall},
    {"a command before its data is complete", kOpen + chunk(0x1F, 64, 8) + task("SFWd", 0), 0xF},
    {"SFWd before SFWi", task("SFWd", 64), 6},
    {"SFWs before SFWi", task("SFWs", 64), 6},
    {"SFWd after SFWs", kOpen + task("SFWs", 64) + task("SFWd", 64), 7},
    {"SFWs without data", kOpen + task("SFWs", 0), 0xF},
    {"SFWd with 5 bytes", kOpen + task("SFWd", 5), 0xF},
    {"SFWd repeats a block that was not the previous one", kOpen + task("SFWd", 4, 0xFE), 0xF},
    {"SFWd without data", kOpen + task("SFWd", 64) + task("SFWd", 0), 0xF}};
INSTANTIATE_TEST_SUITE_P(Breach, Host, testing::ValuesIn(kWrongs), named);

const std::vector<Sent> kDeviations = {
    {"a block of data before SFWi", kVersion + task("SFWi", 64), 0, true},
    {"a read of 10 bytes of register 0x6 instead of 9", request({0xC0, 0xFE, 0x06, 0, 10}), 0x42,
     true},
    {"a read of 6 bytes of register 0x1E instead of 5", request({0xC0, 0xFE, 0x1E, 0, 6}), 0, true},
    {"a read of 8 bytes of register 0x1F instead of 7", kStart + request({0xC0, 0xFE, 0x1F, 0, 8}),
     0, true},
    {"SFWi without a read of the version before it", kOpen, 0, true},
    {"a chunk of 4 bytes where 8 fit", kStart + registerWrite(0x1F, Bytes(64), 4) + task("SFWd", 0),
     0, true},
    {"SFWd sends a repeated block whole", kStart + task("SFWd", 64, 1) + task("SFWd", 64, 1), 0,
     true}};
INSTANTIATE_TEST_SUITE_P(Deviation, Host, testing::ValuesIn(kDeviations), named);

}  // namespace
}  // namespace qm5::test
