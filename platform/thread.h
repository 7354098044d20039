// A named thread that runs one function and is never joined: the program's threads
// live as long as the process, or until their work is done.
#pragma once

#include <functional>
#include <string>

namespace qm5 {

class Thread {
 public:
  /// `name` shows in debuggers (the system keeps 15 bytes). `entry` and all it holds are
  /// kept until it has returned.
  Thread(std::string name, std::function<void()> entry);
  /// Starts the thread and returns at once. Call it once. Fatal when the system has no
  /// thread left.
  void start();

 private:
  std::string name_;
  std::function<void()> entry_;
};

}  // namespace qm5
