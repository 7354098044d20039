// Queues of jobs that run off the submitting thread.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace qm5 {

class DispatchQueue {
 public:
  enum class Attribute {
    serial,      ///< one job at a time, in the order of submission, on one thread
    concurrent,  ///< each job starts at once, on a thread of its own
  };

  /// A serial queue's thread starts here and ends after the queue, so that jobs in the middle of an
  /// update need no new one.
  DispatchQueue(std::string label, Attribute attribute);
  /// Waits for nothing: jobs already submitted still run.
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// Submits `job` and returns at once. Any thread, the queue's own included.
  /// False when the system has no thread left: a concurrent queue then drops the job, a serial one
  /// keeps it and tries again with the next job.
  bool async(std::function<void()> job);

 private:
  class SerialJobs;

  bool startSerialThread();

  const std::string label_;
  std::shared_ptr<SerialJobs> serial_;  // shared with its thread; empty when concurrent
  std::mutex mutex_;                    // guards what follows
  bool has_thread_ = false;             // serial only
};

}  // namespace qm5
