// What the software QM5 makes of a host's requests: good updates, wrong images, and every
// way to break the protocol.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "simulator/qm5_model.h"
#include "tests/simulator_script.h"
#include "tools/firmware_image.h"

namespace qm5 {
namespace {

script::Port portTo(Qm5Model& model) {
  return
      [&model](const ControlSetup& setup, const Bytes& data) { return model.control(setup, data); };
}

std::uint16_t reportedVersion(Qm5Model& model) {
  const Bytes reply = script::read(portTo(model), 0x06, 9).data;
  EXPECT_EQ(reply.size(), 9U);
  return static_cast<std::uint16_t>(reply.at(0) | reply.at(1) << 8);
}

TEST(Update, TakesEffectWithThePowerCycleAndKeepsTheFlash) {
  Qm5Model model;
  EXPECT_EQ(script::update(portTo(model), script::smallImage()), 0);
  const Bytes flash = flashContents(ByteView(script::smallImage()).subspan(kImagePayloadStart));
  EXPECT_EQ(model.flash(), flash);
  EXPECT_TRUE(model.signatureHolds());
  EXPECT_EQ(reportedVersion(model), 0x4201);
  model.powerCycle();
  EXPECT_EQ(reportedVersion(model), 0x4208);
  EXPECT_EQ(model.flash(), flash);
  EXPECT_EQ(model.breaches(), std::vector<std::string>());
}

TEST(Update, OfTheDevelopmentPayloadRepeatsBlocksOfBothKinds) {
  Qm5Model model;
  const auto port = portTo(model);
  std::size_t whole = 0, erased = 0, repeated = 0;
  const auto counting = [&](const ControlSetup& setup, const Bytes& data) {
    if (setup.wValue == 0x1F && setup.wIndex == 64) ++whole;
    if (setup.wValue == 0x1F && setup.wIndex == 4) ++(data == Bytes(4, 0xFF) ? erased : repeated);
    return port(setup, data);
  };
  EXPECT_EQ(script::update(counting, buildImage(developmentPayload(64 * 1024))), 0);
  EXPECT_EQ(model.flash(), developmentPayload(64 * 1024));
  EXPECT_GT(whole, 512U);
  EXPECT_GT(repeated, 100U);
  EXPECT_GT(erased, 50U);
}

struct Damage {
  std::string name;
  std::size_t at;
};
class DamagedImage : public testing::TestWithParam<Damage> {};
TEST_P(DamagedImage, IsRefusedAfterTheLastBlockAndAGoodOneTakenNext) {
  Qm5Model model;
  Bytes image = script::smallImage();
  image[GetParam().at] ^= 0x01;
  EXPECT_NE(script::update(portTo(model), image), 0);
  EXPECT_FALSE(model.signatureHolds());
  model.powerCycle();
  EXPECT_EQ(reportedVersion(model), 0x4201);
  EXPECT_EQ(script::update(portTo(model), script::smallImage()), 0);
  EXPECT_TRUE(model.signatureHolds());
  EXPECT_EQ(model.breaches(), std::vector<std::string>());
}
INSTANTIATE_TEST_SUITE_P(, DamagedImage,
                         testing::Values(Damage{"InTheKey", 200}, Damage{"InTheSignature", 400},
                                         Damage{"InThePayload", 772 + 70}),
                         [](const auto& tested) { return tested.param.name; });

TEST(Task, IsBusyForTheChosenPollsAndItsInputStaysInTheRegister) {
  Qm5Model model({.busy_polls = {{"SFWi", 2}}});
  const auto port = portTo(model);
  script::write(port, 0x1F, Bytes(4, 0xAB));
  script::write(port, 0x1E, script::bytes("SFWi"));
  const Bytes busy = {4, 'S', 'F', 'W', 'i'};
  EXPECT_EQ(script::read(port, 0x1E, 5).data, busy);
  EXPECT_EQ(script::read(port, 0x1E, 5).data, busy);
  EXPECT_EQ(script::read(port, 0x1F, 2).data, (Bytes{0x40, 0xAB}));
  EXPECT_EQ(script::read(port, 0x1E, 5).data, (Bytes{4, 0, 0, 0, 0}));
  EXPECT_EQ(script::read(port, 0x1F, 2).data, (Bytes{0x40, 0x00}));
}

TEST(Task, OfSecureDataCountsItsBlocks) {
  Qm5Model model;
  const auto port = portTo(model);
  script::runTask(port, "SFWi", {});
  for (std::uint8_t number = 0; number < 11; ++number) {
    const Bytes reply = script::runTask(port, "SFWs", Bytes(64));
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 3), (Bytes{0x40, 0x80, number}));
  }
  EXPECT_EQ(script::runTask(port, "SFWs", Bytes(64)).at(1), 0x0F);
}

using script::chunk;
using script::Port;
using script::runTask;
using script::write;
constexpr int kStall = -1;

/// What a host does wrong, and what it gets: a stall of the last request, or a task's
/// result code.
struct Wrong {
  std::string name;
  std::function<int(const Port&)> act;
  int answer;
  std::string breach;
};

int status(const ControlResult& result) {
  return result.status == ControlStatus::stall ? kStall : 0;
}

const std::vector<Wrong> kWrongs = {
    {"NineBytesInAChunk", [](const Port& p) { return status(chunk(p, 0x1F, 9, Bytes(9))); }, kStall,
     "a chunk of 9 bytes"},
    {"EmptyChunk", [](const Port& p) { return status(chunk(p, 0x1F, 8, {})); }, kStall,
     "a chunk of 0 bytes"},
    {"MoreThanAnnounced",
     [](const Port& p) {
       chunk(p, 0x1F, 9, Bytes(8));
       return status(chunk(p, 0x1F, 0, Bytes(2)));
     },
     kStall, "more bytes than the announced total of 9"},
    {"NoTotal", [](const Port& p) { return status(chunk(p, 0x1F, 0, Bytes(8))); }, kStall,
     "a chunk for register 0x1F without a total before it"},
    {"TotalOverTheRegister", [](const Port& p) { return status(chunk(p, 0x1F, 65, Bytes(8))); },
     kStall, "a total of 65 bytes for register 0x1F"},
    {"CommandOfFiveBytes", [](const Port& p) { return status(chunk(p, 0x1E, 5, Bytes(5))); },
     kStall, "a total of 5 bytes for register 0x1E"},
    {"NewTotalTooEarly",
     [](const Port& p) {
       chunk(p, 0x1F, 64, Bytes(8));
       return status(chunk(p, 0x1F, 4, Bytes(4)));
     },
     0, "a new total while a write is unfinished"},
    {"UnknownRegisterWritten", [](const Port& p) { return status(chunk(p, 0x09, 4, Bytes(4))); },
     kStall, "write to unknown register 0x9"},
    {"UnknownRegisterRead", [](const Port& p) { return status(script::read(p, 0x10, 5)); }, kStall,
     "read of unknown register 0x10"},
    {"ReadWithAnIndex",
     [](const Port& p) {
       return status(p({0xC0, 0xFE, 0x1F, 1, 2}, {}));
     },
     kStall, "read with an index of 1"},
    {"UnknownRequest",
     [](const Port& p) {
       return status(p({0x40, 0xFE, 0x1F, 4, 0}, {}));
     },
     kStall, "unknown request 0x40/0xFE"},
    {"UnknownCommand",
     [](const Port& p) {
       write(p, 0x1E, script::bytes("SFWx"));
       return script::read(p, 0x1E, 5).data == Bytes{4, '!', 'C', 'M', 'D'} ? 0 : 1;
     },
     0, "unknown command SFWx"},
    {"DataWrittenWhileBusy",
     [](const Port& p) {
       write(p, 0x1E, script::bytes("SFWi"));
       return status(chunk(p, 0x1F, 4, Bytes(4)));
     },
     kStall, "register 0x1F written while SFWi is busy"},
    {"CommandBeforeItsData",
     [](const Port& p) {
       runTask(p, "SFWi", {});
       chunk(p, 0x1F, 64, Bytes(8));
       return runTask(p, "SFWd", {}).at(1);
     },
     0xF, "a command before its data is complete"},
    {"DataTaskNotOpened", [](const Port& p) { return runTask(p, "SFWd", Bytes(64)).at(1); }, 6,
     "SFWd before SFWi"},
    {"SecureTaskNotOpened", [](const Port& p) { return runTask(p, "SFWs", Bytes(64)).at(1); }, 6,
     "SFWs before SFWi"},
    {"DataAfterSecureData",
     [](const Port& p) {
       runTask(p, "SFWi", {});
       runTask(p, "SFWs", Bytes(64));
       return runTask(p, "SFWd", Bytes(64)).at(1);
     },
     7, "SFWd after SFWs"},
    {"BlockOfFiveBytes",
     [](const Port& p) {
       runTask(p, "SFWi", {});
       return runTask(p, "SFWd", Bytes(5)).at(1);
     },
     0xF, "SFWd with 5 bytes"},
    {"RepeatOfAnotherBlock",
     [](const Port& p) {
       runTask(p, "SFWi", {});
       return runTask(p, "SFWd", Bytes(4, 0xFE)).at(1);
     },
     0xF, "SFWd repeats a block that was not the previous one"},
    {"SameDataTwice",
     [](const Port& p) {
       runTask(p, "SFWi", {});
       runTask(p, "SFWd", Bytes(64));
       return runTask(p, "SFWd", {}).at(1);
     },
     0xF, "SFWd without data"},
};

class Breach : public testing::TestWithParam<Wrong> {};
TEST_P(Breach, IsRecordedAnsweredAndSurvived) {
  Qm5Model model;
  EXPECT_EQ(GetParam().act(portTo(model)), GetParam().answer);
  ASSERT_FALSE(model.breaches().empty());
  EXPECT_EQ(model.breaches().front(), GetParam().breach);
  script::read(portTo(model), 0x1E, 5);  // a task that was left alone ends here
  EXPECT_EQ(script::update(portTo(model), script::smallImage()), 0);
}
INSTANTIATE_TEST_SUITE_P(, Breach, testing::ValuesIn(kWrongs),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
}  // namespace qm5
