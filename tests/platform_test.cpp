// The pieces of the operating system that the rest relies on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <clocale>
#include <csignal>
#include <thread>

#include "platform/clock.h"
#include "platform/dispatch_queue.h"
#include "platform/fatal.h"
#include "platform/notification_center.h"
#include "platform/termination_signals.h"
#include "platform/text.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

void waitFor(const std::atomic<int>& count, int expected) {
  while (count < expected) std::this_thread::yield();
}

TEST(SerialQueue, RunsOneJobAtATimeInOrderEvenWhenItIsLetGoOf) {
  std::atomic<int> running = 0;
  std::atomic<int> ended = 0;
  Notes notes;
  Lines expected;
  {
    DispatchQueue queue("q", DispatchQueue::Attribute::serial);
    for (int i = 0; i < 200; ++i) {
      expected.push_back(std::to_string(i));
      queue.async([&, i] {
        EXPECT_EQ(++running, 1);
        notes.note(std::to_string(i));
        --running;
        ++ended;
      });
      if (i == 100) waitFor(ended, 101);  // it has rested in between
    }
  }
  waitFor(ended, 200);
  EXPECT_EQ(notes.take(), expected);
}

TEST(ConcurrentQueue, StartsAJobWhileAnotherRuns) {
  std::atomic<int> met = 0;
  DispatchQueue queue("q", DispatchQueue::Attribute::concurrent);
  for (int i = 0; i < 2; ++i) {
    queue.async([&] {
      ++met;
      waitFor(met, 2);
      ++met;
    });
  }
  waitFor(met, 4);
}

TEST(NotificationCenter, DeliversByNameOnThePostingThreadUntilTheRegistrationEnds) {
  NotificationCenter center;
  Notes notes;
  const auto here = std::this_thread::get_id();
  const auto observe = [&](const std::string& name, const std::string& who) {
    return center.addObserver(name, [&notes, here, who](const Notification& posted) {
      EXPECT_EQ(std::this_thread::get_id(), here);
      notes.note(who + std::to_string(std::any_cast<int>(posted.object)));
    });
  };
  const auto first = observe("a", "first");
  {
    const auto second = observe("a", "second");
    const auto other = observe("b", "other");
    center.post({"a", 1});
  }
  center.post({"a", 2});
  EXPECT_EQ(notes.take(), (Lines{"first1", "second1", "first2"}));
}

TEST(Text, WritesNumbersAlikeInEveryLocale) {
  // The environment gives a locale whose decimal mark is a comma.
  ASSERT_NE(std::setlocale(LC_ALL, "de_DE.UTF-8"), nullptr);
  ASSERT_STREQ(std::localeconv()->decimal_point, ",");
  EXPECT_EQ(oneDecimal(0), "0.0");
  EXPECT_EQ(oneDecimal(37.5), "37.5");
  EXPECT_EQ(oneDecimal(99.96), "100.0");
  EXPECT_EQ(upperHex(0), "0");
  EXPECT_EQ(upperHex(0xABC0), "ABC0");
  EXPECT_EQ(upperHexByte(0x0A), "0A");
  EXPECT_EQ(lowerHexByte(0xA0), "a0");
}

class TerminationDeathTest : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Signals, TerminationDeathTest, testing::Values(SIGINT, SIGTERM, SIGHUP));

TEST_P(TerminationDeathTest, AsksAtTheFirstSignalAndEndsAtTheNextThatFindsNoDecision) {
  const auto run = [](bool ignored) {
    if (ignored) std::signal(GetParam(), SIG_IGN);
    blockTerminationSignals();
    std::atomic<int> asked = 0;
    followTerminationSignals([&] { ++asked; });
    const auto send = [](int signal) { kill(getpid(), signal); };
    send(GetParam());
    if (ignored) {
      processClock().sleep(0.05);
      std::_Exit(asked);
    }
    waitFor(asked, 1);
    send(SIGHUP);  // of the same moment: it counts for nothing
    processClock().sleep(0.2);
    terminationDeclined();
    send(GetParam());
    waitFor(asked, 2);
    processClock().sleep(0.2);
    std::fputs("asked twice", stderr);
    send(GetParam());
    processClock().sleep(5);
    std::_Exit(7);
  };
  EXPECT_EXIT(run(false), testing::ExitedWithCode(0), "asked twice");
  EXPECT_EXIT(run(true), testing::ExitedWithCode(0), "");
}

TEST(Lines, AreWrittenWholeAndAtOnce) {
  testing::internal::CaptureStdout();
  print("a line");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "a line\n");
  testing::internal::CaptureStderr();
  log("an entry");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "an entry\n");
  EXPECT_DEATH(fatal("why"), "^qm5-updater: fatal error: why\n");
}

}  // namespace
}  // namespace qm5::test
