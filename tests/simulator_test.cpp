// The software QM5: good updates, wrong images, every way to break the protocol, the loss of
// power in the middle of anything; and qm5-simulator around it. What its faults do to an update,
// the sweep of all of them shows.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <chrono>
#include <functional>

#include "simulator/options.h"
#include "simulator/trace.h"
#include "simulator/verdict.h"
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
    for (int tries = polls ? 20 : 1; tries > 0; --tries) {
      result = device.control(setup, sent);
      if (result.data == Bytes{4, 0, 0, 0, 0}) break;
    }
  }
  return result;
}

ControlResult read(FaultyQm5& device, std::uint16_t address, std::uint16_t length) {
  const auto [setup, sent] = registerRead(address, length);
  return device.control(setup, sent);
}

void start(FaultyQm5& device, std::string_view task) {
  send(device, registerWrite(0x1E, Bytes(task.begin(), task.end())));
}

// The task's reply.
Bytes runTask(FaultyQm5& device, std::string_view task, const Bytes& data) {
  return send(device, taskRequests(task, data, 11)).data;
}

// The result code of the first task that fails, or 0.
int update(FaultyQm5& device, ByteView image) {
  for (const WireRequest& request : updateRequests(image)) {
    const Bytes reply = send(device, {request}).data;
    const bool ends_task = isRead(request.setup) && request.setup.wValue == 0x1F;
    if (ends_task && (reply.at(1) & 0x0F) != 0) return reply[1] & 0x0F;
  }
  return 0;
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

// SFWs stays busy for a poll.
const Qm5Model::Options kSlowEnd = {.busy_polls = {{"SFWs", 1}}};

// --- updates ---

TEST(Update, TakesEffectWithThePowerCycleAndKeepsTheFlash) {
  FaultyQm5 device;
  EXPECT_EQ(update(device, image()), 0);
  EXPECT_EQ(read(device, 0x06, 9).data, (Bytes{0x01, 0x42, 0, 0, 0, 0, 0, 0, 0}));
  device.powerCycle();
  EXPECT_EQ(read(device, 0x06, 2).data, (Bytes{0x08, 0x42}));
  const Bytes flash = flashContents(slice(image(), kImagePayloadStart, 202));
  EXPECT_TRUE(judge(device, flash).good) << judge(device, flash).line;
  EXPECT_FALSE(judge(device, Bytes(256)).good) << "another image";
  read(device, 1, 1);
  EXPECT_FALSE(judge(device, std::nullopt).good) << "a breach";
}

TEST(Update, WithADamagedImageIsRefusedAndAGoodOneTakenNext) {
  for (const std::size_t at : {std::size_t{200}, kImageSignatureStart, kImagePayloadStart + 70}) {
    FaultyQm5 device;
    Bytes damaged = image();
    damaged[at] ^= 0x01;
    EXPECT_EQ(update(device, damaged), 0xF) << at;
    device.powerCycle();
    EXPECT_FALSE(judge(device, std::nullopt).good) << at;
    EXPECT_EQ(update(device, image()), 0) << at;
  }
}

// --- what a host does, step by step, and what it gets ---

constexpr int kStall = -1;
constexpr int kUnknown = -2;  // the command register says that the command is none

/// What a host gets of a step: one of the above, a task's result code, or 0.
using Step = std::function<int(FaultyQm5&)>;

Step request(ControlSetup setup) {
  const Bytes sent(isRead(setup) ? 0 : setup.wLength);
  return [=](FaultyQm5& device) {
    return device.control(setup, sent).status == ControlStatus::stall ? kStall : 0;
  };
}
Step chunk(std::uint16_t address, std::uint16_t index, std::uint16_t length) {
  return request({0x40, 0xFD, address, index, length});
}
Step command(std::string_view task) {
  return [=](FaultyQm5& device) {
    start(device, task);
    return read(device, 0x1E, 5).data == Bytes{4, '!', 'C', 'M', 'D'} ? kUnknown : 0;
  };
}
Step task(std::string_view name, std::size_t length, std::uint8_t fill = 0) {
  return [=](FaultyQm5& device) { return runTask(device, name, Bytes(length, fill)).at(1); };
}
const Step kOpen = task("SFWi", 0);
Step fault(std::string_view text) {
  return [=](FaultyQm5& device) { return device.addFault(parseFault(text).value()), 0; };
}

int act(FaultyQm5& device, const std::vector<Step>& steps) {
  int last = 0;
  for (const Step& step : steps) last = step(device);
  return last;
}

struct Sent {
  std::string name;
  std::vector<Step> steps;
  int answer;  // to the last step
};
QM5_PRINTS_NAME(Sent)

class Breach : public testing::TestWithParam<Sent> {};
TEST_P(Breach, IsRecordedAnsweredAndSurvived) {
  FaultyQm5 device{Qm5Model(kSlowEnd)};
  EXPECT_EQ(act(device, GetParam().steps), GetParam().answer);
  EXPECT_EQ(device.breaches().at(0), GetParam().name);
  read(device, 0x1E, 5);  // a task that was left alone ends here
  EXPECT_EQ(update(device, image()), 0);
}

// Each is named by its breach.
const std::vector<Sent> kWrongs = {
    {"a chunk of 9 bytes", {chunk(0x1F, 9, 9)}, kStall},
    {"a chunk of 0 bytes", {chunk(0x1F, 8, 0)}, kStall},
    {"more bytes than the announced total of 9", {chunk(0x1F, 9, 8), chunk(0x1F, 0, 2)}, kStall},
    {"a chunk for register 0x1F without a total before it", {chunk(0x1F, 0, 8)}, kStall},
    {"a total of 65 bytes for register 0x1F", {chunk(0x1F, 65, 8)}, kStall},
    {"a total of 5 bytes for register 0x1E", {chunk(0x1E, 5, 5)}, kStall},
    {"a new total while a write is unfinished", {chunk(0x1F, 64, 8), chunk(0x1F, 4, 4)}, 0},
    {"write to unknown register 0x9", {chunk(0x09, 4, 4)}, kStall},
    {"read of unknown register 0x10", {request({0xC0, 0xFE, 0x10, 0, 5})}, kStall},
    {"read with an index of 1", {request({0xC0, 0xFE, 0x1F, 1, 2})}, kStall},
    {"unknown request 0x40/0xFE", {request({0x40, 0xFE, 0x1F, 4, 0})}, kStall},
    {"unknown command SFWx", {command("SFWx")}, kUnknown},
    {"register 0x1F written while SFWs is busy", {command("SFWs"), chunk(0x1F, 4, 4)}, kStall},
    {"a command before its data is complete", {kOpen, chunk(0x1F, 64, 8), task("SFWd", 0)}, 0xF},
    {"SFWd before SFWi", {task("SFWd", 64)}, 6},
    {"SFWs before SFWi", {task("SFWs", 64)}, 6},
    {"SFWd after SFWs", {kOpen, task("SFWs", 64), task("SFWd", 64)}, 7},
    {"SFWs without data", {kOpen, task("SFWs", 0)}, 0xF},
    {"SFWd with 5 bytes", {kOpen, task("SFWd", 5)}, 0xF},
    {"SFWd repeats a block that was not the previous one", {kOpen, task("SFWd", 4, 0xFE)}, 0xF},
    {"SFWd without data", {kOpen, task("SFWd", 64), task("SFWd", 0)}, 0xF}};
INSTANTIATE_TEST_SUITE_P(Each, Breach, testing::ValuesIn(kWrongs), named);

// What a device answers that has just come up, to questions that tell what it remembers.
std::vector<Bytes> answersAfterPowerCycle(FaultyQm5& device) {
  device.powerCycle();
  return {read(device, 0x1E, 5).data,
          read(device, 0x1F, 65).data,
          {chunk(0x1F, 0, 2)(device) == kStall},
          runTask(device, "SFWd", Bytes(64, 0x77))};
}

class PowerCycle : public testing::TestWithParam<Sent> {};
TEST_P(PowerCycle, ForgetsWhatIsUnderWay) {
  FaultyQm5 fresh, device{Qm5Model(kSlowEnd)};
  EXPECT_EQ(act(device, GetParam().steps), GetParam().answer);
  EXPECT_EQ(answersAfterPowerCycle(device), answersAfterPowerCycle(fresh));
  EXPECT_EQ(update(device, image()), 0);
}
const std::vector<Sent> kUnderWay = {
    {"a busy task", {command("SFWs")}, 0},
    {"a task that hangs", {fault("SFWi:1=busy"), command("SFWi")}, 0},
    {"half a write", {chunk(0x1F, 64, 8)}, 0},
    {"a refused command", {command("SFWx")}, kUnknown},
    {"a refusal of everything", {fault("request:1=stall-on"), command("SFWi")}, 0},
    {"a reply not read", {fault("SFWi:1=stall"), command("SFWi")}, 0},
    {"the payload", {kOpen, task("SFWd", 64)}, 0},
    {"secure data", {kOpen, task("SFWs", 64)}, 0x80}};
INSTANTIATE_TEST_SUITE_P(Each, PowerCycle, testing::ValuesIn(kUnderWay), named);

TEST(TaskFault, HitsTheTaskOfItsNumberAlone) {
  FaultyQm5 device;
  EXPECT_EQ(act(device, {fault("SFWd:2=result:13"), kOpen, task("SFWd", 64)}), 0);
  EXPECT_EQ(act(device, {task("SFWd", 64, 1)}), 13);
  EXPECT_EQ(act(device, {task("SFWd", 64, 2)}), 0);
}

// --- the simulator around the device ---

TEST(Trace, HasALineARequest) {
  FaultyQm5 device;
  std::string traced;
  device.setObserver([&](const RequestRecord& request) {
    traced = traceLine(request, request.time - std::chrono::microseconds(1'002'030));
  });
  start(device, "SFWi");
  EXPECT_EQ(traced, R"({"t":1.002030,"bmRequestType":64,"bRequest":253,"wValue":30,"wIndex":4,)"
                    R"("wLength":4,"data":"53465769","status":"ok"})");
}

TEST(Options, ThatMakeNoSenseAreRefused) {
  for (const std::string wrong :
       {"--fault ", "--fault SFWd=stall", "--fault SFWd:0=stall", "--fault SFWx:1=stall",
        "--fault SFWd:1=result", "--fault SFWd:1=result:0", "--fault SFWd:1=result:16",
        "--fault SFWd:1=stall:2", "--fault request:1x=stall", "--busy SFWd=x", "--version 42019",
        "--attach-after -1", "--unknown 1"}) {
    const auto space = wrong.find(' ');
    const auto parsed =
        parseSimulatorOptions({wrong.substr(0, space), wrong.substr(space + 1), "true"});
    EXPECT_TRUE(std::holds_alternative<SimulatorNotice>(parsed)) << wrong;
  }
}

TEST(Simulator, AttachesLateObeysSignalsAndEndsWithItsVerdict) {
  FILE* const output = popen(
      "env -u LD_PRELOAD " QM5_SIMULATOR_PROGRAM
      " --attach-after 0.3 -- sh -ec 'cd /dev/bus/usb/001; test ! -e 002; sleep 1; test -e 002;"
      "kill -USR1 $PPID; sleep 0.5; test ! -e 002; kill -USR2 $PPID; sleep 0.5; test -e 003;"
      "exit 7'",
      "r");
  std::array<char, 500> text{};
  EXPECT_NE(std::fgets(text.data(), text.size(), output), nullptr);
  EXPECT_EQ(WEXITSTATUS(pclose(output)), 1);
  EXPECT_STREQ(text.data(),
               "qm5-simulator: the flash is empty, the signature does not hold, no breach of "
               "protocol, the program ended with 7\n");
}

}  // namespace
}  // namespace qm5::test
