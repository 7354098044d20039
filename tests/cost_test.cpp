// What a block costs the host, by count: control requests, and how often it asks for memory. The
// times that follow from it are ./bench's business.
#include <gtest/gtest.h>

#include "platform/console.h"
#include "platform/system_log.h"
#include "support/allocation_count.h"
#include "support/ready_qm5.h"
#include "update_engine/unsecure_flow.h"

namespace qm5::test {
namespace {

TEST(BlockCost, IsWhatTheProtocolTakesAndNeverMore) {
  const auto& device = (new ReadyLink)->device;  // never taken apart
  setConsole([](std::string_view) {});
  setSystemLog([](std::string_view) {});
  constexpr std::size_t kBlocks = 256;
  Bytes new_blocks;
  for (std::size_t i = 0; i < kBlocks; ++i)
    new_blocks.insert(new_blocks.end(), 64, static_cast<std::uint8_t>(i));
  for (const auto& [payload, requests_per_block] :
       {std::pair{new_blocks, 11U}, {Bytes(kBlocks * 64, 0xFF), 4U}}) {
    const std::size_t requests = device.requestCount();
    const std::size_t allocations = allocationCount();
    ASSERT_TRUE(common_update(*global_driver, payload, [](std::string_view, double) {}));
    // Title and line, and the replies to poll and read.
    EXPECT_EQ(allocationCount() - allocations, kBlocks * 4 + 6);
    // Before the blocks there is the opening: command, poll and reply.
    EXPECT_EQ(device.requestCount() - requests, kBlocks * requests_per_block + 3);
  }
}

}  // namespace
}  // namespace qm5::test
