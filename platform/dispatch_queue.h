// Queues of jobs that run off the submitting thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace qm5 {

class DispatchQueue {
 public:
  enum class Attribute {
    serial,      ///< one job at a time, in the order of submission
    concurrent,  ///< each job starts at once
  };

  DispatchQueue(std::string label, Attribute attribute);
  ~DispatchQueue();
  DispatchQueue(const DispatchQueue&) = delete;
  DispatchQueue& operator=(const DispatchQueue&) = delete;

  /// Submits `job` and returns at once. Any thread, the queue's own included.
  /// Destroying the queue waits for nothing: jobs already submitted still run.
  void async(std::function<void()> job);

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace qm5
