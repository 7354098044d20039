// What an update costs the host, by count: requests per block, and how often it asks for memory.
// The times that follow from it are ./bench's business.
#include <gtest/gtest.h>

#include "platform/console.h"
#include "platform/system_log.h"
#include "support/allocation_count.h"
#include "support/named_cases.h"
#include "support/ready_qm5.h"
#include "support/unsigned_image.h"
#include "update_engine/unsecure_flow.h"

namespace qm5::test {
namespace {

ReadyLink& link() {
  static auto* const process = new ReadyLink;
  setConsole([](std::string_view) {});
  setSystemLog([](std::string_view) {});
  return *process;
}

template <typename Work>
std::size_t allocationsOf(Work work) {
  const std::size_t before = allocationCount();
  work();
  return allocationCount() - before;
}

struct Blocks {
  std::string_view name;
  Bytes payload;
  ReadyQm5::Requests requests;  // of one block
};
QM5_PRINTS_NAME(Blocks)

// Title and line, two for the group, the replies to poll and read, three for the decoded one.
constexpr std::size_t kAllocationsPerBlock = 9;
constexpr std::size_t kAllocationsAround = 13;

class BlockCost : public testing::TestWithParam<Blocks> {};

TEST_P(BlockCost, IsWhatTheProtocolTakesAndNeverMore) {
  const ReadyQm5& device = link().device;
  const ProgressCallback progress = [](std::string_view, double) {};
  const std::size_t blocks = GetParam().payload.size() / 64;
  const ReadyQm5::Requests before = device.requests();
  const std::size_t allocations = allocationsOf(
      [&] { ASSERT_TRUE(common_update(*global_driver, GetParam().payload, progress)); });
  // Around the blocks there is the opening: command, poll and reply.
  const auto& [data, command, poll, read, other] = GetParam().requests;
  EXPECT_EQ(device.requests().data_writes - before.data_writes, blocks * data);
  EXPECT_EQ(device.requests().command_writes - before.command_writes, blocks * command + 1);
  EXPECT_EQ(device.requests().polls - before.polls, blocks * poll + 1);
  EXPECT_EQ(device.requests().data_reads - before.data_reads, blocks * read + 1);
  EXPECT_EQ(device.requests().others - before.others, blocks * other);

  EXPECT_EQ(allocations, blocks * kAllocationsPerBlock + kAllocationsAround);
}

INSTANTIATE_TEST_SUITE_P(
    Payloads, BlockCost,
    testing::Values(Blocks{"new blocks", newBlocks(256), {8, 1, 1, 1, 0}},
                    Blocks{"repeated blocks", Bytes(newBlocks(256).size(), 0xFF), {1, 1, 1, 1, 0}}),
    named);

}  // namespace
}  // namespace qm5::test
