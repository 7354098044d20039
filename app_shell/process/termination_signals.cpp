#include "app_shell/process/termination_signals.h"

#include <csignal>
#include <cstdlib>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/fatal.h"
#include "platform/line_writer.h"
#include "platform/system_log.h"
#include "platform/thread.h"

namespace qm5 {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::chrono::milliseconds kCoalesceWindow{100};

// A signal has been handed to `ask`, and terminationDeclined() has not followed yet.
std::atomic<bool> undecided = false;

std::atomic<bool> held = false;

sigset_t handledSignals() {
  sigset_t handled;
  sigemptyset(&handled);
  for (const int signal : kSignals) {
    struct sigaction inherited {};
    sigaction(signal, nullptr, &inherited);
    if (inherited.sa_handler != SIG_IGN) sigaddset(&handled, signal);
  }
  return handled;
}

void discardPending(const sigset_t& signals) {
  sigset_t pending;
  sigpending(&pending);
  for (const int signal : kSignals) {
    if (sigismember(&pending, signal) != 1 || sigismember(&signals, signal) != 1) continue;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    int discarded = 0;
    sigwait(&one, &discarded);
  }
}

}  // namespace

void blockTerminationSignals() {
  const sigset_t signals = handledSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void followTerminationSignals(std::function<void()> ask) {
  Thread thread("Termination", [ask = std::move(ask), signals = handledSignals()] {
    while (true) {
      int signal = 0;
      if (sigwait(&signals, &signal) != 0) continue;
      if (held) {
        log("A signal wants the program to end, which it does once the update has ended.");
        continue;
      }
      if (undecided.exchange(true)) {
        flushLines();
        std::_Exit(0);
      }
      ask();
      std::this_thread::sleep_for(kCoalesceWindow);
      discardPending(signals);
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
