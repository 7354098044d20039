#include "computer/process/termination_signals.h"

#include <csignal>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "platform/fatal.h"
#include "platform/system_log.h"
#include "platform/thread.h"

namespace qm5 {
namespace {

constexpr std::chrono::milliseconds kCoalesceWindow{100};

// A signal has been handed to `ask`, and terminationDeclined() has not followed yet.
std::atomic<bool> undecided = false;

std::atomic<bool> held = false;

// Written before the first thread.
std::vector<int> handled;

sigset_t handledSet() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : handled) sigaddset(&set, signal);
  return set;
}

void discardPending() {
  sigset_t pending;
  sigpending(&pending);
  for (const int signal : handled) {
    if (sigismember(&pending, signal) != 1) continue;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    int discarded = 0;
    sigwait(&one, &discarded);
  }
}

}  // namespace

void blockTerminationSignals(std::initializer_list<int> requests) {
  for (const int signal : requests) {
    struct sigaction inherited {};
    sigaction(signal, nullptr, &inherited);
    if (inherited.sa_handler != SIG_IGN) handled.push_back(signal);
  }
  const sigset_t blocked = handledSet();
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

void followTerminationSignals(std::function<void()> ask, std::function<int()> insisted) {
  Thread thread("Termination", [ask = std::move(ask), insisted = std::move(insisted)] {
    const sigset_t signals = handledSet();
    while (true) {
      int signal = 0;
      if (sigwait(&signals, &signal) != 0) continue;
      if (held) {
        log("A signal wants the program to end, which it does once the update has ended.");
        continue;
      }
      if (undecided.exchange(true)) endProcess(insisted());
      ask();
      std::this_thread::sleep_for(kCoalesceWindow);
      discardPending();
    }
  });
  if (!thread.start()) cannotStart("there is no thread left to wait for signals");
}

void terminationDeclined() {
  undecided = false;
}

void holdTermination() {
  held = true;
}

}  // namespace qm5
