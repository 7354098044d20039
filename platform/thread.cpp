#include "platform/thread.h"

#include <pthread.h>

#include <memory>
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
  const auto entry = std::make_shared<std::function<void()>>(std::move(entry_));
  try {
    std::thread([name = name_, entry] {
      setCurrentName(name);
      (*entry)();
    }).detach();
  } catch (const std::system_error&) {
    entry_ = std::move(*entry);
    return false;
  }
  return true;
}

}  // namespace qm5
