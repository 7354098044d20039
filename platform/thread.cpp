#include "platform/thread.h"

#include <pthread.h>

#include <system_error>
#include <thread>
#include <utility>

namespace qm5 {
namespace {

void setCurrentName(const std::string& name) {
  const std::string kept = name.substr(0, 15);
#ifdef __APPLE__
  pthread_setname_np(kept.c_str());
#else
  pthread_setname_np(pthread_self(), kept.c_str());
#endif
}

}  // namespace

Thread::Thread(std::string name, std::function<void()> entry)
    : name_(std::move(name)), entry_(std::move(entry)) {}

bool Thread::start() {
  try {
    std::thread([name = std::move(name_), entry = std::move(entry_)] {
      setCurrentName(name);
      entry();
    }).detach();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

}  // namespace qm5
