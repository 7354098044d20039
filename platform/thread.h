// A named thread that runs one function and is never joined: it ends when the function returns or
// when the process ends.
#pragma once

#include <functional>
#include <string>

namespace qm5 {

class Thread {
 public:
  /// `name` is shown by debuggers and `ps`; the system keeps its first 15 bytes. `entry`, and all
  /// that it holds, lives until it has returned.
  Thread(std::string name, std::function<void()> entry);
  /// Starts the thread and returns at once. False when the system has no thread left. To be called
  /// once.
  [[nodiscard]] bool start();

 private:
  std::string name_;
  std::function<void()> entry_;
};

}  // namespace qm5
