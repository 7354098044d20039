// The pieces of the operating system that the rest relies on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <clocale>
#include <future>
#include <sstream>
#include <thread>

#include "computer/process/start_conditions.h"
#include "platform/clock.h"
#include "platform/dispatch_queue.h"
#include "platform/fatal.h"
#include "platform/line_recorder.h"
#include "platform/line_writer.h"
#include "platform/text.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

void waitFor(const std::atomic<int>& count, int expected) {
  while (count < expected) std::this_thread::yield();
}

TEST(Queues, RunOneJobAtATimeInOrderOrSideBySideEvenWhenTheyAreLetGoOf) {
  std::atomic<int> met = 0;
  std::atomic<int> ended = 0;
  {
    DispatchQueue serial("org.qm5.serial", DispatchQueue::Attribute::serial);
    DispatchQueue concurrent("q", DispatchQueue::Attribute::concurrent);
    serial.async([] {
      std::array<char, 16> name{};
      pthread_getname_np(pthread_self(), name.data(), name.size());
      EXPECT_STREQ(name.data(), "serial");
    });
    for (int i = 0; i < 200; ++i) {
      serial.async([&, i] { EXPECT_EQ(ended++, i); });
      if (i == 100) waitFor(ended, 101);  // it has rested in between
    }
    for (int i = 0; i < 2; ++i) {
      concurrent.async([&] {
        ++met;
        waitFor(met, 2);
        ++met;
      });
    }
  }
  waitFor(ended, 200);
  waitFor(met, 4);
}

TEST(Queues, RunWhatTheyHaveOnceAThreadCanBeHad) {
  pthread_attr_t usual;
  pthread_getattr_default_np(&usual);
  pthread_attr_t endless = usual;
  pthread_attr_setstacksize(&endless, std::size_t{1} << 46);  // no computer has that much
  pthread_setattr_default_np(&endless);
  std::atomic<int> ended = 0;
  DispatchQueue serial("q", DispatchQueue::Attribute::serial);
  DispatchQueue concurrent("q", DispatchQueue::Attribute::concurrent);
  ASSERT_FALSE(serial.async([&] { ++ended; }));
  EXPECT_FALSE(concurrent.async([] { FAIL() << "the caller was told that it does not run"; }));
  pthread_setattr_default_np(&usual);
  EXPECT_TRUE(serial.async([&] { ++ended; }));
  waitFor(ended, 2);
}

TEST(Clock, GoesOnAsBeforeWhenTheComputersClockIsSet) {
  const auto since_the_start = std::chrono::steady_clock::now().time_since_epoch();
  EXPECT_NEAR(processClock().now(), std::chrono::duration<double>(since_the_start).count(), 20);
}

TEST(Text, WritesNumbersAlikeInEveryLocale) {
  // The environment gives a locale whose decimal mark is a comma.
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  EXPECT_EQ(oneDecimal(99.96), "100.0");
  EXPECT_EQ(upperHex(0xABC0), "ABC0");
}

// A pipe of one page that nobody reads until told to.
struct StalledReader {
  StalledReader() {
    EXPECT_EQ(pipe(ends), 0);
    fcntl(ends[1], F_SETPIPE_SZ, 4096);
  }
  std::string readUpTo(const std::string& end) {
    std::string all;
    std::array<char, 4096> bytes;
    while (!all.ends_with(end)) {
      pollfd readable{ends[0], POLLIN, 0};
      if (poll(&readable, 1, 20'000) <= 0) break;
      const ssize_t size = read(ends[0], bytes.data(), bytes.size());
      if (size <= 0) break;
      all.append(bytes.data(), static_cast<std::size_t>(size));
    }
    return all;
  }
  int ends[2];
};

TEST(Lines, WaitForAReaderWhoHasStoppedAndThenSayHowManyWereLeftOut) {
  StalledReader stalled, other;
  auto* const writer =
      new LineWriter("Lines", {descriptorSink(stalled.ends[1]), descriptorSink(other.ends[1])});
  constexpr std::size_t kLines = 40'000;
  const std::string tail(40, '.');
  for (std::size_t i = 0; i < kLines; ++i) writer->submit(0, std::to_string(i) + tail);
  writer->submit(0, "");  // would fit, but comes after the gap
  writer->submit(1, "the other stream goes on");
  EXPECT_EQ(other.readUpTo("\n"), "the other stream goes on\n");
  const auto begin = std::chrono::steady_clock::now();
  writer->flush(begin + std::chrono::milliseconds(200), begin + std::chrono::seconds(20));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
  std::istringstream lines(stalled.readUpTo(" lines left out\n"));
  std::size_t count = 0;
  std::string line;
  while (std::getline(lines, line) && line.ends_with(tail))
    EXPECT_EQ(line, std::to_string(count++) + tail);
  EXPECT_EQ(line, std::to_string(kLines + 1 - count) + " lines left out");
  EXPECT_GT(count * tail.size(), LineWriter::kBytesKept / 2);
  const std::string long_line(5000, '.');  // more than a pipe takes at once
  writer->submit(0, "after the gap\n" + long_line);
  EXPECT_EQ(stalled.readUpTo("\n"), "after the gap\n");
  EXPECT_EQ(stalled.readUpTo("\n"), long_line + "\n");
}

TEST(Lines, AreWaitedForWhileTheyAreWrittenAndNotWhereNobodyReads) {
  ignoreWriteSignals();
  StalledReader gone;
  close(gone.ends[0]);
  std::promise<void> begun;
  std::atomic<bool> has_ended = false;
  const auto slow = [&](std::string_view lines, auto) {
    begun.set_value();
    processClock().sleep(0.05);
    has_ended = true;
    return lines.size();
  };
  auto* const writer = new LineWriter("Lines", {descriptorSink(gone.ends[1]), slow});
  writer->submit(0, "for nobody");
  writer->submit(1, "the last line");
  begun.get_future().wait();
  const auto begin = std::chrono::steady_clock::now();
  writer->flush(begin, begin + std::chrono::seconds(20));
  EXPECT_TRUE(has_ended);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(15));
}

std::atomic<const char*> identity = nullptr;  // under which the system log gets entries
std::atomic<int> entries = 0;                 // of them; the first one takes a while

TEST(Lines, AreWrittenInTheirOrderOnBothStreams) {
  testing::internal::CaptureStderr();
  const int standard_output = dup(STDOUT_FILENO);
  ASSERT_EQ(dup2(STDERR_FILENO, STDOUT_FILENO), STDOUT_FILENO);
  for (int i = 0; i < 100; ++i) {
    print("line " + std::to_string(i));
    if (i % 7 == 0) log("entry " + std::to_string(i));
  }
  flushLines();
  dup2(standard_output, STDOUT_FILENO);
  std::string all;
  for (int i = 0; i < 100; ++i) {
    all.append("line " + std::to_string(i) + "\n");
    if (i % 7 == 0) all.append("entry " + std::to_string(i) + "\n");
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), all);
  EXPECT_EQ(entries, 15);
  EXPECT_STREQ(identity, "qm5-updater");
}

TEST(Lines, AreKeptUpToTheLastOneForTheDetailsOfARun) {
  const Transcript transcript;
  const LineRecorder recorder;
  for (std::size_t i = 0; i <= LineRecorder::kLinesKept; ++i) print(std::to_string(i));
  EXPECT_EQ(recorder.lines().front(), "1 earlier lines left out");
  EXPECT_EQ(recorder.lines().back(), std::to_string(LineRecorder::kLinesKept));
}

// In a process that has written nothing yet: a child has no thread that writes.
TEST(LinesDeathTest, ComeBeforeTheEndThatFollowsThem) {
  EXPECT_EXIT((log("before"), endProcess(3)), testing::ExitedWithCode(3), "before\n");
  EXPECT_DEATH((log("before"), fatal("why")), "before\nqm5-updater: fatal error: why\n");
}

}  // namespace
}  // namespace qm5::test

// In place of the C library's.
extern "C" void openlog(const char* name, int, int) {
  qm5::test::identity = name;
  if (qm5::test::entries == 0) usleep(20'000);
  ++qm5::test::entries;
}
