#include "platform/dispatch_queue.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

#include "platform/thread.h"

namespace qm5 {
namespace {

// What follows the last dot of a reverse-DNS label: the part that tells threads apart.
std::string threadName(const std::string& label) {
  return label.substr(label.rfind('.') + 1);
}

}  // namespace

class DispatchQueue::SerialJobs {
 public:
  void push(std::function<void()> job) {
    const std::lock_guard lock(mutex_);
    jobs_.push_back(std::move(job));
    changed_.notify_one();
  }
  void close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_one();
  }
  // Runs jobs until the queue is closed and none is left.
  void run() {
    while (const auto job = next()) job();
  }

 private:
  // The first job, once there is one; empty when there will be none.
  std::function<void()> next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !jobs_.empty(); });
    if (jobs_.empty()) return nullptr;
    std::function<void()> job = std::move(jobs_.front());
    jobs_.pop_front();
    return job;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::function<void()>> jobs_;
  bool closed_ = false;
};

DispatchQueue::DispatchQueue(std::string label, Attribute attribute) : label_(std::move(label)) {
  if (attribute == Attribute::concurrent) return;
  serial_ = std::make_shared<SerialJobs>();
  startSerialThread();
}

DispatchQueue::~DispatchQueue() {
  if (serial_) serial_->close();
}

bool DispatchQueue::async(std::function<void()> job) {
  if (!serial_) return Thread(threadName(label_), std::move(job)).start();
  serial_->push(std::move(job));
  return startSerialThread();
}

bool DispatchQueue::startSerialThread() {
  const std::lock_guard lock(mutex_);
  if (!has_thread_) {
    has_thread_ = Thread(threadName(label_), [jobs = serial_] { jobs->run(); }).start();
  }
  return has_thread_;
}

}  // namespace qm5
