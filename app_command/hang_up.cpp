#include "app_command/hang_up.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

namespace qm5 {
namespace {

std::atomic<bool> is_held = false;
std::atomic<bool> has_come = false;  // while it was held

void hangUp(int) {
  is_held ? has_come.store(true) : void(::kill(::getpid(), SIGTERM));
}

}  // namespace

void followHangUps() {
  if (std::signal(SIGHUP, SIG_IGN) == SIG_DFL) std::signal(SIGHUP, hangUp);
}

void holdHangUps() {
  is_held = true;
}

void releaseHangUps() {
  is_held = false;
  if (has_come.exchange(false)) hangUp(SIGHUP);
}

}  // namespace qm5
