// Tasks, both flows and the image layout, down to the requests that they make.
#include <numeric>

#include "support/linked_device.h"
#include "support/named_cases.h"
#include "update_engine/byte_groups.h"
#include "update_engine/image_layout.h"
#include "update_engine/result_codes.h"
#include "update_engine/secure_flow.h"
#include "update_engine/tasks.h"
#include "update_engine/unsecure_flow.h"

namespace qm5::test {
namespace {

using Reply = std::optional<Bytes>;

// A reply of `size` bytes that begins with `bytes`; zeros follow.
Bytes padded(Bytes bytes, std::size_t size) {
  bytes.resize(size);
  return bytes;
}

class Engine : public LinkedDevice {
 protected:
  Engine() { attach(); }

  void expectSFWi(const Reply& reply = padded({0x40}, 7)) {
    device.expectTask("SFWi", {}, 7, reply);
  }
  void expectSFWd(const Bytes& block, const Reply& reply = Bytes{0x40, 0}) {
    device.expectTask("SFWd", block, 2, reply);
  }
  void expectSFWs(const Bytes& block, const Reply& reply = padded({0x40}, 11)) {
    device.expectTask("SFWs", block, 11, reply);
  }
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

TEST(HexEncodedString, HasTwoLowerCaseDigitsAByte) {
  EXPECT_EQ(hexEncodedString(Bytes{0x00, 0xAB, 0x0F}), "00ab0f");
  EXPECT_EQ(hexEncodedString({}), "");
}

TEST(ReturnCode, HasACaseForExactlyTheCodesWithAName) {
  Lines names;
  for (std::size_t value = 0; value <= 0x10; ++value) {
    const auto code = SFWdReturnCodeFromRawValue(value);
    names.emplace_back(code ? textForm(*code) : "-");
    EXPECT_EQ(rawValue(code.value_or(SFWdReturnCode{value})), value);
  }
  EXPECT_EQ(names,
            (Lines{"SUCCESS", "-", "-", "-", "FAIL_FLASH_ERASE_WRITE_ERROR", "-",
                   "FAIL_SFWI_NOT_RUN_FIRST", "FAIL_TOO_MUCH_DATA", "FAIL_ACE_ID_NOT_IN_HEADER",
                   "FAIL_BINARY_TOO_LARGE", "FAIL_DEVICE_ID_MISMATCH", "-", "-",
                   "FAIL_FLASH_ERROR_READ_ONLY", "-", "FAIL_UNKNOWN_ERROR", "-"}));
}

TEST_F(Engine, DecodesRepliesEachTaskInItsOwnWay) {
  expectSFWi(Bytes{0x44, 1, 2, 0xFD, 3, 4, 5});
  EXPECT_EQ(sfwi(), (ReplyDictionary{{"result", 4},
                                     {"overlay_present", 1},
                                     {"prod_key_present", 0},
                                     {"engr_key_present", 1},
                                     {"new_flash_region", 1}}));
  EXPECT_EQ(transcript.take(), Lines{"out: sfwi: result=440102fd030405"});
  expectSFWd({9}, Bytes{0x4F, 0x80});
  EXPECT_EQ(sfwd(Bytes{9}), (ReplyDictionary{{"result", 0}, {"more_data_expected", 1}}));
  expectSFWd({9}, Bytes{1, 0});
  EXPECT_EQ(sfwd(Bytes{9}), (ReplyDictionary{{"result", 0}, {"more_data_expected", 0}}));
  expectSFWd({9}, Bytes{1, 6});
  EXPECT_EQ(sfwd(Bytes{9}), (ReplyDictionary{{"result", 6}, {"more_data_expected", 1}}));
  EXPECT_EQ(transcript.take(), Lines{});
  expectSFWs({9}, padded({0x0A, 0x85, 0x12, 0x06}, 11));
  EXPECT_EQ(sfws(Bytes{9}), (ReplyDictionary{{"result", 5},
                                             {"more_data_expected", 1},
                                             {"signature_data_block", 18},
                                             {"overlay_present", 0},
                                             {"prod_key_present", 1},
                                             {"engr_key_present", 1},
                                             {"new_flash_region", 2},
                                             {"hash_match", 6}}));
  EXPECT_EQ(transcript.take(),
            Lines{"out: SFWs: read_back: [10, 133, 18, 6, 0, 0, 0, 0, 0, 0, 0]"});
  expectSFWs({9}, padded({0x0A, 0x05}, 11));
  EXPECT_EQ(sfws(Bytes{9})->at("more_data_expected"), 0U) << "bit 7 alone";
}

TEST_F(Engine, TellsAMissingReplyFromAReplyDifferentlyForEachTask) {
  expectSFWi(std::nullopt);
  EXPECT_EQ(sfwi(), std::nullopt);
  expectSFWd({9}, std::nullopt);
  EXPECT_EQ(sfwd(Bytes{9}), ReplyDictionary{});
  expectSFWs({9}, std::nullopt);
  EXPECT_EQ(sfws(Bytes{9}), std::nullopt);
  EXPECT_EQ(transcript.take(), Lines{});
}

TEST_F(Engine, WaitsForEachTaskAsLongAsItMayTake) {
  postDisconnected(Dictionary{{"id", std::uint64_t{7}}});
  for (const auto& [task, retries, delay] : {std::tuple{+[] { sfwi(); }, 15U, 0.1},
                                             {+[] { sfwd({}); }, 15U, 0.1},
                                             {+[] { sfws({}); }, 300U, 1.0}}) {
    task();
    EXPECT_EQ(clock.takeSleeps(), std::vector<double>(retries, delay));
  }
}

TEST_F(Engine, JudgesTheOpeningTaskByGroupsOfItsOwn) {
  const std::string unknown = "FAIL_UNKNOWN_ERROR";
  const Lines reasons = {"",    unknown, unknown, unknown, "0x4",   "0x5",   "0x6",   "0x7",
                         "0x8", unknown, unknown, unknown, unknown, unknown, unknown, "0xF"};
  for (std::size_t code = 0; code < reasons.size(); ++code) {
    // The host takes the result from the length byte.
    const Bytes reply = padded({static_cast<std::uint8_t>(0x40 | code), 0xFF}, 7);
    expectSFWi(reply);
    EXPECT_EQ(common_update(*global_driver, {}, progress), code == 0);
    Lines lines = {"log: Sending SFWi for unsecure_update flow",
                   "out: sfwi: result=" + hexEncodedString(reply),
                   "progress: Sending SFWi data 1.000000",
                   std::string("out: SFWi returned: 0x") + "0123456789ABCDEF"[code]};
    if (code != 0) lines.push_back("out: SFWi Failed with task_result: " + reasons[code]);
    EXPECT_EQ(transcript.take(), lines);
  }
}

TEST_F(Engine, EndsWhenTheOpeningTaskHasNoReply) {
  expectSFWi(std::nullopt);
  EXPECT_FALSE(common_update(*global_driver, Bytes(64), progress));
  EXPECT_EQ(transcript.take(), (Lines{"log: Sending SFWi for unsecure_update flow",
                                      "out: SFWi failed. Returned None"}));
}

const Lines kOpened = {"log: Sending SFWi for unsecure_update flow",
                       "out: sfwi: result=40000000000000", "out: SFWi returned: 0x0"};

Lines afterOpening(Lines lines) {
  lines.insert(lines.begin(), kOpened.begin(), kOpened.end());
  return lines;
}

TEST_F(Engine, SendsARepeatedChunkAsItsFirstFourBytes) {
  // 0xFF first, as if it followed a chunk of 0xFF; then A, A, A again, B, A, and 8 bytes of A.
  const Bytes a(64, 0xAA), b(64, 0xBB);
  Bytes payload(64, 0xFF);
  for (const Bytes& chunk : {a, a, a, b, a})
    payload.insert(payload.end(), chunk.begin(), chunk.end());
  payload.insert(payload.end(), a.begin(), a.begin() + 8);
  Bytes last(a.begin(), a.begin() + 8);
  last.resize(64, 0xFF);

  expectSFWi();
  for (const Bytes& block : {Bytes(4, 0xFF), a, Bytes(4, 0xAA), Bytes(4, 0xAA), b, a, last})
    expectSFWd(block);
  EXPECT_TRUE(common_update(*global_driver, payload, {}));
  const std::string same = "out: Not sending this chunk, same as last";
  EXPECT_EQ(transcript.take(),
            afterOpening({"out: Writing SFWd chunk 0", same, "out: Writing SFWd chunk 1",
                          "out: Writing SFWd chunk 2", same, "out: Writing SFWd chunk 3", same,
                          "out: Writing SFWd chunk 4", "out: Writing SFWd chunk 5",
                          "out: Writing SFWd chunk 6"}));
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>{});
}

struct Percentages {
  std::size_t size;
  std::vector<double> values;
};

TEST_F(Engine, ReportsWholePercentagesBeforeEachChunk) {
  std::vector<double> hundred(100);
  std::iota(hundred.begin(), hundred.end(), 0.0);
  for (const auto& [size, values] : {Percentages{100, {0, 100}}, Percentages{130, {0, 50, 100}},
                                     Percentages{192, {0, 33, 66}}, Percentages{6400, hundred}}) {
    Bytes payload(size);
    for (std::size_t i = 0; i < size; ++i) payload[i] = static_cast<std::uint8_t>(i / 64);
    expectSFWi();
    for (const Bytes& chunk : grouper(payload, 0xFF, 64)) expectSFWd(chunk);
    std::vector<double> seen;
    Lines titles;
    EXPECT_TRUE(common_update(*global_driver, payload, [&](std::string_view title, double value) {
      titles.emplace_back(title);
      seen.push_back(value);
    }));
    EXPECT_EQ(titles[0], "Sending SFWi data");
    EXPECT_EQ(titles[1], "Writing SFWd chunk:0");
    EXPECT_EQ(seen[0], 1.0);
    EXPECT_EQ(std::vector<double>(seen.begin() + 1, seen.end()), values) << size;
  }
}

using EngineDeathTest = Engine;

TEST_F(EngineDeathTest, HasNoPercentageForLessThanOneChunkButWritesIt) {
  expectSFWi();
  EXPECT_DEATH(common_update(*global_driver, Bytes(63), progress), "progress of less than one");
  Bytes block(63);
  block.push_back(0xFF);
  expectSFWd(block);
  EXPECT_TRUE(common_update(*global_driver, Bytes(63), {}));
}

struct Retried {
  std::string_view name;
  Reply first;
  Reply second;
  std::string_view failure;  // empty: the chunk was taken
};
QM5_PRINTS_NAME(Retried)

class Retry : public Engine, public testing::WithParamInterface<Retried> {};

TEST_P(Retry, ComesOnceAfterAPauseAndDecides) {
  expectSFWi();
  const Bytes block(64, 1);
  expectSFWd(block, GetParam().first);
  expectSFWd(block, GetParam().second);
  const bool taken = GetParam().failure.empty();
  if (taken) expectSFWd(Bytes(64, 2));
  Bytes payload = block;
  payload.insert(payload.end(), 64, 2);
  EXPECT_EQ(common_update(*global_driver, payload, {}), taken);
  EXPECT_EQ(clock.takeSleeps(), std::vector<double>{0.1});

  Lines lines = {"out: Writing SFWd chunk 0"};
  if (!GetParam().first) lines.emplace_back("out: No sfwd return");
  lines.emplace_back("out: retry sfwd again");
  lines.push_back(taken ? "out: Writing SFWd chunk 1"
                        : "out: SFWd Failed with task_result: " + std::string(GetParam().failure));
  EXPECT_EQ(transcript.take(), afterOpening(lines));
}

Bytes result(std::uint8_t code) {
  return {0x40, code};
}

INSTANTIATE_TEST_SUITE_P(
    Outcomes, Retry,
    testing::Values(Retried{"refused then taken", result(4), result(0), ""},
                    Retried{"silent then taken", std::nullopt, result(0), ""},
                    Retried{"silent twice", std::nullopt, std::nullopt, "no result"},
                    Retried{"refused then silent", result(4), std::nullopt, "no result"},
                    Retried{"4", result(6), result(4), "FAIL_FLASH_ERASE_WRITE_ERROR"},
                    Retried{"13", std::nullopt, result(0xD), "FAIL_FLASH_ERROR_READ_ONLY"},
                    Retried{"15", result(4), result(0xF), "FAIL_UNKNOWN_ERROR"},
                    Retried{"5", result(4), result(5), "0x5"},
                    Retried{"14", result(4), result(0xE), "0xE"}),
    named);

// An image with a payload of one chunk.
Bytes makeImage() {
  Bytes image = {0x01, 0x00, 0xEF, 0xAC};
  for (int i = 0; i < 768; ++i) image.push_back(static_cast<std::uint8_t>(i / 64 + 1));
  image.insert(image.end(), 64, 0x77);
  return image;
}

TEST_F(Engine, RefusesAnImageByLengthFirstAndThenByItsMagic) {
  const auto refusal = [this](const Bytes& image) {
    EXPECT_FALSE(secure_update_binary(*global_driver, image, progress, "pss", false));
    return transcript.take();
  };
  EXPECT_EQ(refusal({}), Lines{"out: Invalid binary file. Binary file length:0"});
  EXPECT_EQ(refusal(Bytes(771)), Lines{"out: Invalid binary file. Binary file length:771"});
  for (std::size_t i = 0; i < 4; ++i) {
    Bytes image = makeImage();
    image[i] ^= 1;
    EXPECT_EQ(refusal(image), Lines{"out: Invalid binary header."}) << i;
  }
}

TEST_F(Engine, AcceptsAnImageWithAnEmptyPayload) {
  Bytes image = makeImage();
  image.resize(772);
  expectSFWi();
  for (std::uint8_t k = 7; k <= 12; ++k) expectSFWs(Bytes(64, k));
  EXPECT_TRUE(secure_update_binary(*global_driver, image, {}, "PSS", true));
}

struct SecureRun {
  std::string_view name;
  std::string_view padding;
  int stops_at;  // the SFWs task, 0 to 11, that gets `reply`; 12: none
  Reply reply;
  std::string_view failure;
};
QM5_PRINTS_NAME(SecureRun)

class SecureFlow : public Engine, public testing::WithParamInterface<SecureRun> {
 protected:
  // Scripts the tasks of the run and returns its lines, from the opening on.
  Lines expected() {
    const auto& [name, padding, stops_at, reply, failure] = GetParam();
    const int tasks = padding == "pss" ? 12 : 6;
    Lines lines = {"log: Sending SFWi for unsecure_update flow", "out: sfwi: result=40000000000000",
                   "progress: Sending SFWi data 1.000000",       "out: SFWi returned: 0x0",
                   "progress: Writing SFWd chunk:0 0.000000",    "out: Writing SFWd chunk 0"};
    expectSFWi();
    expectSFWd(Bytes(64, 0x77));
    for (int i = 0; i < tasks; ++i) {
      const bool is_key = i >= 6;
      const std::string number = std::to_string(i % 6);
      const Reply task_reply = i == stops_at ? reply : padded({0x40, 0x80, 7}, 11);
      expectSFWs(Bytes(64, static_cast<std::uint8_t>(is_key ? i - 5 : i + 7)), task_reply);
      if (i == 6) lines.emplace_back("out: Initiating SFWs completion, sending signature");
      lines.push_back(
          (is_key ? "progress: Update PSS secure data:" : "progress: Update SFWs secure data:") +
          number + " 99.000000");
      lines.push_back(
          (is_key ? "out: Sending SFWs chunk_number:" : "out: Sending SFWs chunk_number=") +
          number);
      if (task_reply) {
        std::string list = "out: SFWs: read_back: [";
        for (const auto byte : *task_reply) list += std::to_string(byte) + ", ";
        lines.push_back(list.substr(0, list.size() - 2) + "]");
      }
      if (is_key) lines.push_back("out: SFWs public key chunk " + number);
      if (i == stops_at) {
        lines.push_back("out: " + std::string(failure));
        return lines;
      }
    }
    lines.emplace_back("progress: secure_update complete SUCCESS 100.000000");
    lines.emplace_back("log: SWFs completed SUCCESSFULLY");
    return lines;
  }
};

TEST_P(SecureFlow, SendsSignatureThenKeyAndStopsAtTheFirstFailure) {
  const Bytes image = makeImage();
  Lines lines = expected();
  std::string signature = "out: RSA signature: ";
  for (const char* digits : {"07", "08", "09", "0a", "0b", "0c"})
    for (int i = 0; i < 64; ++i) signature += digits;
  lines.insert(lines.begin(), signature);
  EXPECT_EQ(secure_update_binary(*global_driver, image, progress, GetParam().padding, true),
            GetParam().failure.empty());
  EXPECT_EQ(transcript.take(), lines);
}

constexpr std::string_view kNone = "sfws_return during sending signature is None";
INSTANTIATE_TEST_SUITE_P(
    Runs, SecureFlow,
    testing::Values(SecureRun{"pss", "pss", 12, {}, ""}, SecureRun{"PSS", "PSS", 12, {}, ""},
                    SecureRun{"no padding", "", 12, {}, ""},
                    SecureRun{"third signature chunk refused", "pss", 2, padded({0x40, 5}, 11),
                              "SFWs signature sending failed: 0x5"},
                    SecureRun{"signature chunk silent", "pss", 5, {}, kNone},
                    SecureRun{"key chunk silent", "pss", 6, {}, kNone},
                    SecureRun{"last key chunk refused", "pss", 11, padded({0x40, 0x8F}, 11),
                              "SFWs signature sending failed: 0xF"}),
    named);

TEST_F(Engine, SendsNoSecureDataWhenThePayloadFailed) {
  expectSFWi(padded({0x44}, 7));
  EXPECT_FALSE(secure_update_binary(*global_driver, makeImage(), {}, "pss", false));
  const Lines lines = transcript.take();
  EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
            (Lines{"out: SFWi Failed with task_result: 0x4", "out: Flash failed."}));
}

}  // namespace
}  // namespace qm5::test
