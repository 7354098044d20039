#include "platform/dispatch_queue.h"

#include <deque>
#include <mutex>
#include <utility>

#include "platform/thread.h"

namespace qm5 {

struct DispatchQueue::State {
  std::string label;
  Attribute attribute;
  std::mutex mutex;
  std::deque<std::function<void()>> jobs;  // serial: waiting; the front one is running
};

namespace {

// What follows the last dot of a reverse-DNS label: the part that tells threads apart.
std::string threadName(const std::string& label) {
  return label.substr(label.rfind('.') + 1);
}

}  // namespace

DispatchQueue::DispatchQueue(std::string label, Attribute attribute)
    : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
  state_->attribute = attribute;
}

DispatchQueue::~DispatchQueue() = default;

void DispatchQueue::async(std::function<void()> job) {
  if (state_->attribute == Attribute::concurrent) {
    Thread(threadName(state_->label), std::move(job)).start();
    return;
  }
  {
    const std::lock_guard lock(state_->mutex);
    state_->jobs.push_back(std::move(job));
    if (state_->jobs.size() > 1) return;  // a thread is at work and will come to it
  }
  // A serial queue has a thread only while it has work, as it may rest for hours.
  Thread(threadName(state_->label), [state = state_] {
    while (true) {
      std::function<void()> next;
      {
        const std::lock_guard lock(state->mutex);
        next = std::move(state->jobs.front());
      }
      next();
      next = nullptr;  // what the job holds goes before the next one starts
      const std::lock_guard lock(state->mutex);
      state->jobs.pop_front();
      if (state->jobs.empty()) return;
    }
  }).start();
}

}  // namespace qm5
