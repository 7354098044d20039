// The life of a process: its arguments, streams and signals, and the claim of the bus.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <new>
#include <thread>

#include "app_shell/process/arguments.h"
#include "computer/process/single_instance.h"
#include "computer/process/start_conditions.h"
#include "computer/process/termination_signals.h"
#include "platform/clock.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

// What other threads may be reading must not move. The sanitizers' memory does, as it grows.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(Environment, StaysWhereItIsWhenAnActivationTokenComes) {
  std::vector<std::string> behind;  // so that it can't grow where it is
  for (int others = 0; others < 20; ++others) {
    setenv(("QM5_TEST" + std::to_string(others)).c_str(), "", 1);
    setEnvironment();
    behind.emplace_back(1000, '.');
    const char* const* const before = environ;
    setenv("XDG_ACTIVATION_TOKEN", "token", 1);
    EXPECT_EQ(environ, before) << others;
    EXPECT_EQ(activationToken(), "token");
    unsetenv("XDG_ACTIVATION_TOKEN");
  }
}
#endif

TEST(StartResources, KeepMemoryForTheFirstAllocationThatFindsNone) {
  requireStartResources();
  const std::new_handler find_memory = std::get_new_handler();
  find_memory();
  EXPECT_THROW(find_memory(), std::bad_alloc);
}

class TerminationDeathTest : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Signals, TerminationDeathTest, testing::Values(SIGINT, SIGTERM, SIGHUP));

// Runs in a child: 7 is the status of a child in which something was not as it has to be.
[[noreturn]] void signalAgainAndAgain(int signal) {
  const auto send = [](int each) { kill(getpid(), each); };
  std::atomic<int> asked = 0;
  std::atomic<bool> declined = false;
  blockTerminationSignals();
  const double first = processClock().now();
  send(signal);
  const auto insisted = [&] {
    const bool too_late = asked == 1 && !declined && processClock().now() - first > 0.1;
    return asked == 2 || too_late ? 0 : 7;
  };
  followTerminationSignals([&] { ++asked; }, insisted);
  while (asked == 0) std::this_thread::yield();
  processClock().sleep(0.02);
  send(SIGHUP);  // still of the same moment: it counts for nothing
  processClock().sleep(0.02);
  declined = true;
  terminationDeclined();
  for (; asked < 3; processClock().sleep(0.01)) send(signal);
  std::_Exit(7);
}

TEST_P(TerminationDeathTest, AsksAtTheFirstSignalAndEndsAtTheNextThatFindsNoDecision) {
  EXPECT_EXIT(signalAgainAndAgain(GetParam()), testing::ExitedWithCode(0), "");
}

TEST_P(TerminationDeathTest, LeavesASignalIgnoredThatTheProcessWasStartedToIgnore) {
  EXPECT_EXIT(
      {
        std::signal(GetParam(), SIG_IGN);
        blockTerminationSignals();
        kill(getpid(), GetParam());
        sigset_t pending;
        sigpending(&pending);
        std::_Exit(sigismember(&pending, GetParam()));
      },
      testing::ExitedWithCode(0), "");
}

TEST(StandardStreams, AreOpenAfterAStartWithAnyOfThemClosed) {
  for (int closed = 0; closed < 8; ++closed) {
    const pid_t child = fork();
    if (child == 0) {
      for (int each = 0; each < 3; ++each) {
        if ((closed >> each & 1) != 0) close(each);
      }
      openStandardStreams();
      const int next = dup(STDIN_FILENO);
      _exit(next > STDERR_FILENO ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << closed;
  }
}

TEST(Arguments, AreTheToolkitsOrAnsweredOrRefused) {
  using Words = std::vector<const char*>;
  constexpr int kStarts = -1;
  for (const auto& [arguments, status] :
       {std::pair<Words, int>{{}, kStarts},
        {{"-platform", "offscreen", "--session", "id"}, kStarts},
        {{"-style=fusion", "--reverse", "-qdevel", "--qdebug"}, kStarts},
        {{"-style", "fusion", "--help"}, 0},
        {{"-title", "--help"}, kStarts},  // a value that looks like help
        {{"--version"}, 0},
        {{"image.bin"}, 2},
        {{"-reverse", "--quick"}, 2},
        {{"-platform"}, 2}}) {
    Words words = {"qm5-updater"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    const auto reply = replyToArguments(static_cast<int>(words.size()), words.data(), "1.2.3");
    EXPECT_EQ(reply ? reply->exit_status : kStarts, status) << words.back();
  }
}

// A bus that is this test's own.
const char* bus() {
  static char folder[] = "/dev/shm/qm5-bus-XXXXXX";
  static const char* const made = mkdtemp(folder);
  static const int at_end = std::atexit([] { rmdir(folder); });
  EXPECT_EQ(at_end, 0);
  return made;
}

auto claim(std::string_view token) {
  return claimBus(token, bus());
}

TEST(BusClaim, NamesAProgramThatKeepsTheBusAndDoesNotAnswer) {
  const auto claimed = claim("");
  const auto second = claim("");  // of this very process, which doesn't listen
  ASSERT_TRUE(std::holds_alternative<BusInUse>(second));
  EXPECT_EQ(std::get<BusInUse>(second).by, BusInUse::By::otherProgram);
  EXPECT_EQ(std::get<BusInUse>(second).name,
            "process_test (process " + std::to_string(getpid()) + ")");
}

// A process that claims the bus and goes on with `next`; here once that has called its argument.
pid_t claimElsewhere(void (*next)(BusClaim& claimed, const std::function<void()>& ready)) {
  int ready[2];
  EXPECT_EQ(pipe(ready), 0);
  bus();  // the same for both
  const pid_t owner = fork();
  if (owner == 0) {
    auto claimed = claim("");
    next(std::get<BusClaim>(claimed), [&] {
      if (write(ready[1], "y", 1) != 1) _exit(7);
    });
  }
  close(ready[1]);
  EXPECT_EQ(read(ready[0], &ready[1], 1), 1);
  return owner;
}

TEST(BusClaim, ComesAfterAnOwnerThatTakesItsTimeToEnd) {
  claimElsewhere([](BusClaim&, const auto& ready) {
    std::thread([ready] {
      ready();
      processClock().sleep(2.5);  // more than an answer may take
      _exit(0);
    }).detach();
    syscall(SYS_exit, 0);  // of this thread alone
  });
  EXPECT_TRUE(std::holds_alternative<BusClaim>(claim("")));
}

TEST(BusClaim, GivesAStoppedOwnerTheTokenOfAStartOnce) {
  const pid_t owner = claimElsewhere([](BusClaim& claimed, const auto& ready) {
    std::atomic<int> tokens = 0;
    claimed.followLaterStarts([&](const std::string& token) {
      if (token == "last") _exit(tokens);
      ++tokens;
    });
    ready();
    while (true) pause();
  });
  kill(owner, SIGSTOP);
  EXPECT_EQ(std::get<BusInUse>(claim("token")).by, BusInUse::By::thisUser);
  kill(owner, SIGCONT);
  claim("last");
  int status = 0;
  waitpid(owner, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST(BusClaim, IsAnsweredByItsOwnerWhoLearnsOfEachLaterStart) {
  const pid_t impostor = claimElsewhere([](BusClaim& claimed, const auto& ready) {
    claimed.followLaterStarts([](const std::string&) {});
    claimed = BusClaim(Descriptor(), Descriptor());  // it answers all the same
    ready();
    pause();
  });
  Notes notes;
  setenv("WAYLAND_DISPLAY", "wayland-7", 1);
  setenv("DISPLAY", ":7", 1);
  auto claimed = claim("");
  std::get<BusClaim>(claimed).followLaterStarts(
      [&](const std::string& token) { notes.note(token); });
  for (int starts = 0; starts < 20; ++starts)  // the impostor may be the first to answer
    EXPECT_EQ(std::get<BusInUse>(claim("token")).by, BusInUse::By::thisUser);
  for (const char* variable : {"WAYLAND_DISPLAY", "DISPLAY"}) setenv(variable, ":8", 1);
  const auto elsewhere = std::get<BusInUse>(claim(""));
  EXPECT_EQ(elsewhere.by, BusInUse::By::thisUserElsewhere);
  EXPECT_EQ(elsewhere.name, "wayland-7");
  std::get<BusClaim>(claimed).displayIsLost();
  EXPECT_EQ(std::get<BusInUse>(claim("")).by, BusInUse::By::thisUserWithoutWindows);
  EXPECT_EQ(notes.newLines()[0], "token");
  kill(impostor, SIGKILL);
}

TEST(BusClaim, KeepsOtherUsersOutAndDoesNotListenToThem) {
  if (getuid() != 0) GTEST_SKIP() << "root alone can become another user";
  Notes notes;
  auto claimed = claim("");
  std::get<BusClaim>(claimed).followLaterStarts(
      [&](const std::string& token) { notes.note(token); });
  ASSERT_EQ(chmod(bus(), 0755), 0);
  const pid_t other_user = fork();
  if (other_user == 0) {
    const int result = setuid(65534);
    const auto refused = std::get<BusInUse>(claim("another user's token"));
    _exit(result == 0 && refused.by == BusInUse::By::anotherUser ? 0 : 7);
  }
  int status = 0;
  waitpid(other_user, &status, 0);
  EXPECT_EQ(status, 0);
  for (int starts = 0; starts < 2; ++starts) claim("token");
  EXPECT_EQ(notes.newLines()[0], "token");
}

}  // namespace
}  // namespace qm5::test
