// The question on the terminal whether a run may be cut off.
#pragma once

#include <QSocketNotifier>
#include <functional>
#include <memory>

#include "app_command/report.h"

namespace qm5 {

/// Main thread.
class ExitPrompt {
 public:
  /// Asks on the terminal, in the words of the windows, and returns at once. `answered` is called
  /// with whether to quit; an end of the input counts as no. False: there is nobody to ask, because
  /// standard input is no terminal or another job has it.
  bool ask(Report& report, std::function<void(bool quit)> answered);
  /// Takes the question back, where one stands: there is nothing left to ask.
  void withdraw(Report& report);

 private:
  std::unique_ptr<QSocketNotifier> answer_;  // while a question stands
};

}  // namespace qm5
