#include "platform/termination_signals.h"

#include <csignal>
#include <cstdlib>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

#include "platform/thread.h"

namespace qm5 {
namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::chrono::milliseconds kTogether{100};

std::atomic<bool> undecided = false;

sigset_t signalsToTake() {
  sigset_t taken;
  sigemptyset(&taken);
  for (const int signal : kSignals) {
    struct sigaction inherited {};
    sigaction(signal, nullptr, &inherited);
    if (inherited.sa_handler != SIG_IGN) sigaddset(&taken, signal);
  }
  return taken;
}

void drop(const sigset_t& signals) {
  sigset_t waiting;
  sigpending(&waiting);
  for (const int signal : kSignals) {
    if (sigismember(&waiting, signal) != 1 || sigismember(&signals, signal) != 1) continue;
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, signal);
    int taken = 0;
    sigwait(&one, &taken);
  }
}

}  // namespace

void blockTerminationSignals() {
  const sigset_t signals = signalsToTake();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void followTerminationSignals(std::function<void()> ask) {
  Thread("Termination", [ask = std::move(ask), signals = signalsToTake()] {
    while (true) {
      int signal = 0;
      if (sigwait(&signals, &signal) != 0) continue;
      if (undecided.exchange(true)) std::_Exit(0);
      ask();
      std::this_thread::sleep_for(kTogether);
      drop(signals);
    }
  }).start();
}

void terminationDeclined() {
  undecided = false;
}

}  // namespace qm5
