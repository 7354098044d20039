// Tasks, both flows and the image layout, down to the control requests that they make.
#include <sstream>

#include "support/linked_device.h"
#include "support/named_cases.h"
#include "update_engine/byte_groups.h"
#include "update_engine/result_codes.h"
#include "update_engine/secure_flow.h"
#include "update_engine/tasks.h"
#include "update_engine/unsecure_flow.h"

namespace qm5::test {
namespace {

class Engine : public LinkedDevice {
 protected:
  Engine() { attach(); }

  // Notes progress between the lines that it came among.
  ProgressCallback progress = [this](std::string_view title, double value) {
    transcript.note("progress: " + std::string(title) + " " + std::to_string(value));
  };
};

TEST(Groups, AreConsecutiveAndTheLastIsFilledUp) {
  const Bytes five = {1, 2, 3, 4, 5};
  EXPECT_EQ(grouper(five, 0xFF, 2), (std::vector<Bytes>{{1, 2}, {3, 4}, {5, 0xFF}}));
  EXPECT_EQ(grouper(Bytes(128, 1), 0, 64), std::vector<Bytes>(2, Bytes(64, 1)));
  EXPECT_EQ(grouper({}, 0, 64), std::vector<Bytes>{});
  EXPECT_EQ(grouper(five, 0, -1), std::vector<Bytes>{});
  EXPECT_DEATH(grouper({}, 0, 0), "a group size of 0");
}

TEST_F(Engine, DecodesRepliesEachTaskInItsOwnWay) {
  device.expectTask("SFWi", {}, Bytes{0x44, 1, 2, 0xFD, 3, 4, 5});
  EXPECT_EQ(sfwi(), (ReplyDictionary{.result = 4,
                                     .overlay_present = 1,
                                     .prod_key_present = 0,
                                     .engr_key_present = 1,
                                     .new_flash_region = 1}));
  EXPECT_EQ(transcript.newLines(), Lines{"out: sfwi: result=440102fd030405"});
  for (const auto& [reply, result, more] :
       {std::tuple{Bytes{0x4F, 0x80}, 0U, 1U}, {Bytes{1, 0}, 0U, 0U}, {Bytes{1, 6}, 6U, 1U}}) {
    device.expectTask("SFWd", {9}, reply);
    EXPECT_EQ(sfwd(Bytes{9}), (ReplyDictionary{.result = result, .more_data_expected = more}));
  }
  EXPECT_EQ(transcript.newLines(), Lines{});
  device.expectTask("SFWs", {9}, Bytes{0x0A, 0x85, 0x12, 0x0E});
  EXPECT_EQ(sfws(Bytes{9}), (ReplyDictionary{.result = 5,
                                             .more_data_expected = 1,
                                             .signature_data_block = 18,
                                             .overlay_present = 0,
                                             .prod_key_present = 1,
                                             .engr_key_present = 1,
                                             .new_flash_region = 2,
                                             .hash_match = 6}));
  EXPECT_EQ(transcript.newLines(),
            Lines{"out: SFWs: read_back: [10, 133, 18, 14, 0, 0, 0, 0, 0, 0, 0]"});
  device.expectTask("SFWs", {9}, Bytes{0x0A, 0x05});
  EXPECT_EQ(sfws(Bytes{9})->more_data_expected, 0U) << "bit 7 alone";
}

TEST_F(Engine, WaitsForEachTaskAsLongAsItMayTake) {
  postDisconnected(Dictionary{{"id", std::uint64_t{7}}});
  for (const auto& [task, retries, delay] : {std::tuple{+[] { sfwi(); }, 15U, 0.1},
                                             {+[] { sfwd({}); }, 15U, 0.1},
                                             {+[] { sfws({}); }, 300U, 1.0}}) {
    task();
    EXPECT_EQ(clock.newSleeps(), std::vector<double>(retries, delay));
  }
}

const Lines kOpened = {"log: Sending SFWi for unsecure_update flow",
                       "out: sfwi: result=40000000000000", "out: SFWi returned: 0x0"};

Lines afterOpening(Lines lines) {
  lines.insert(lines.begin(), kOpened.begin(), kOpened.end());
  return lines;
}

TEST_F(Engine, SendsARepeatedChunkAsItsFirstFourBytes) {
  // 0xFF first, as if it followed a chunk of 0xFF; then chunks that differ in all bytes, in none,
  // in the last byte, in the first byte, and in the padding.
  const Bytes a(64, 0xAA), erased(64, 0xFF), repeated(4, 0xAA);
  Bytes other_end = a, other_start = a;
  other_end.back() = other_start.front() = 0xBB;
  Bytes payload;
  for (const Bytes& chunk : {erased, a, a, a, other_end, a, other_start, a, Bytes(8, 0xAA)})
    payload.insert(payload.end(), chunk.begin(), chunk.end());
  device.expectTask("SFWi");
  for (const Bytes& block : {Bytes(4, 0xFF), a, repeated, repeated, other_end, a, other_start, a,
                             grouper(Bytes(8, 0xAA), 0xFF, 64)[0]})
    device.expectTask("SFWd", block);
  EXPECT_TRUE(common_update(*global_driver, payload, {}));
  Lines lines;
  for (std::size_t i = 0; i < 9; ++i) {
    lines.push_back("out: Writing SFWd chunk " + std::to_string(i));
    if (i == 0 || i == 2 || i == 3) lines.emplace_back("out: Not sending this chunk, same as last");
  }
  EXPECT_EQ(transcript.newLines(), afterOpening(lines));
  EXPECT_EQ(clock.newSleeps(), std::vector<double>{});
}

TEST_F(Engine, RetriesABlockOnceAfterAPauseAndPrintsTheSecondFailure) {
  std::istringstream names(
      "0x1 0x2 0x3 FAIL_FLASH_ERASE_WRITE_ERROR 0x5 FAIL_SFWI_NOT_RUN_FIRST FAIL_TOO_MUCH_DATA "
      "FAIL_ACE_ID_NOT_IN_HEADER FAIL_BINARY_TOO_LARGE FAIL_DEVICE_ID_MISMATCH 0xB 0xC "
      "FAIL_FLASH_ERROR_READ_ONLY 0xE FAIL_UNKNOWN_ERROR");
  const Bytes block(64, 1);
  const auto expect_retry = [&](const std::optional<Bytes>& first,
                                const std::optional<Bytes>& second, const std::string& why) {
    device.expectTask("SFWi");
    device.expectTask("SFWd", block, first);
    device.expectTask("SFWd", block, second);
    EXPECT_EQ(common_update(*global_driver, block, {}), why.empty());
    EXPECT_EQ(clock.newSleeps(), std::vector<double>{0.1});
    Lines lines = {"out: Writing SFWd chunk 0"};
    if (!first) lines.emplace_back("out: No sfwd return");
    lines.emplace_back("out: retry sfwd again");
    if (!why.empty()) lines.push_back("out: SFWd Failed with task_result: " + why);
    EXPECT_EQ(transcript.newLines(), afterOpening(lines));
  };
  std::string name;
  for (std::uint8_t code = 1; names >> name; ++code)
    expect_retry(Bytes{0x40, 6}, Bytes{0x40, code}, name);
  expect_retry(Bytes{0x40, 6}, std::nullopt, "no result");
  expect_retry(std::nullopt, Bytes{0x40, 0}, "");
  EXPECT_EQ(rawValue(SFWdReturnCodeFromRawValue(13).value()), 13U);
}

// An image with a payload of one chunk.
Bytes makeImage() {
  Bytes image = {0x01, 0x00, 0xEF, 0xAC};
  for (int i = 0; i < 768; ++i) image.push_back(static_cast<std::uint8_t>(i / 64 + 1));
  image.insert(image.end(), 64, 0x77);
  return image;
}

TEST_F(Engine, RefusesAnImageByEachByteOfItsMagicAndStopsAtOneOfLessThanABlock) {
  for (std::size_t i = 0; i < 4; ++i) {
    Bytes image = makeImage();
    image[i] ^= 1;
    EXPECT_FALSE(secure_update_binary(*global_driver, image, progress, "pss", false));
    EXPECT_EQ(transcript.newLines(), Lines{"out: Invalid binary header."});
  }
  // A payload of less than one block has no percentage, which is a broken precondition.
  const auto update = [this] {
    device.expectTask("SFWi");
    common_update(*global_driver, Bytes(63), progress);
  };
  EXPECT_DEATH(update(), "fatal error: progress of less than one chunk");
}

TEST_F(Engine, SendsSignatureThenKeyUnlessThePaddingIsAnother) {
  std::string signature = "out: RSA signature: ";
  for (const char* digits : {"07", "08", "09", "0a", "0b", "0c"})
    for (int i = 0; i < 64; ++i) signature += digits;
  for (const std::string padding : {"pss", "PSS"}) {
    Lines lines = {signature,
                   kOpened[0],
                   kOpened[1],
                   "progress: Sending SFWi data 1.000000",
                   kOpened[2],
                   "progress: Writing SFWd chunk:0 0.000000",
                   "out: Writing SFWd chunk 0"};
    device.expectTask("SFWi");
    device.expectTask("SFWd", Bytes(64, 0x77));
    const auto expect_stage = [&](std::uint8_t first, const std::string& title,
                                  const std::string& sending, const std::string& sent) {
      for (std::uint8_t i = 0; i < 6; ++i) {
        const std::string number = std::to_string(i);
        device.expectTask("SFWs", Bytes(64, first + i), Bytes{0x40, 0x80, 7});
        lines.push_back(
            std::string("progress: Update ").append(title).append(number).append(" 99.000000"));
        lines.push_back(std::string("out: Sending SFWs ").append(sending).append(number));
        lines.emplace_back("out: SFWs: read_back: [64, 128, 7, 0, 0, 0, 0, 0, 0, 0, 0]");
        if (!sent.empty()) lines.push_back(sent + number);
      }
    };
    expect_stage(7, "SFWs secure data:", "chunk_number=", "");
    if (padding == "pss") {
      lines.emplace_back("out: Initiating SFWs completion, sending signature");
      expect_stage(1, "PSS secure data:", "chunk_number:", "out: SFWs public key chunk ");
    }
    lines.emplace_back("progress: secure_update complete SUCCESS 100.000000");
    lines.emplace_back("log: SWFs completed SUCCESSFULLY");
    EXPECT_TRUE(secure_update_binary(*global_driver, makeImage(), progress, padding, true));
    EXPECT_EQ(transcript.newLines(), lines);
  }
}

TEST_F(Engine, TellsOfAReplyBeforeItsFailure) {
  device.expectTask("SFWi", {}, Bytes{0x4A, 0xFF});
  EXPECT_FALSE(common_update(*global_driver, Bytes(64), progress));
  Lines lines = transcript.newLines();
  EXPECT_EQ(lines[2], "progress: Sending SFWi data 1.000000");
  EXPECT_EQ(lines[4], "out: SFWi Failed with task_result: FAIL_UNKNOWN_ERROR");
  device.expectTask("SFWi");
  device.expectTask("SFWd", Bytes(64, 0x77));
  for (std::uint8_t fill = 7; fill < 13; ++fill) device.expectTask("SFWs", Bytes(64, fill));
  device.expectTask("SFWs", Bytes(64, 1), Bytes{0x40, 5});
  EXPECT_FALSE(secure_update_binary(*global_driver, makeImage(), {}, "pss", false));
  lines = transcript.newLines();
  EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
            (Lines{"out: SFWs public key chunk 0", "out: SFWs signature sending failed: 0x5"}));
}

}  // namespace
}  // namespace qm5::test
