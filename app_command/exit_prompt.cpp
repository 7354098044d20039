#include "app_command/exit_prompt.h"

#include <termios.h>
#include <unistd.h>

#include <array>
#include <string>
#include <utility>

#include "update_run/exit_question.h"

namespace qm5 {
namespace {

// Reading the terminal of another job would stop this one.
bool hasTerminal() {
  return ::isatty(STDIN_FILENO) != 0 && ::tcgetpgrp(STDIN_FILENO) == ::getpgrp();
}

std::string question() {
  std::string text("\n");  // behind the ^C that a terminal shows
  text.append(kExitTitle).append("\n").append(kExitText);
  text.append("\nq and Enter: ").append(kQuit);
  return text.append(".  Enter alone: ").append(kDontQuit).append(".");
}

bool readYes() {
  std::array<char, 256> typed{};  // a terminal gives one line at a time
  const ssize_t size = ::read(STDIN_FILENO, typed.data(), typed.size());
  return size > 0 && (typed[0] == 'q' || typed[0] == 'Q');
}

}  // namespace

bool ExitPrompt::ask(Report& report, std::function<void(bool quit)> answered) {
  if (!hasTerminal()) return false;
  ::tcflush(STDIN_FILENO, TCIFLUSH);  // what was typed before is no answer
  if (!report.ask(question())) return false;
  answer_ = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
  QObject::connect(answer_.get(), &QSocketNotifier::activated,
                   [this, &report, answered = std::move(answered)] {
                     const bool quit = readYes();
                     const auto reply = answered;  // it goes with the notifier
                     withdraw(report);
                     reply(quit);
                   });
  return true;
}

void ExitPrompt::withdraw(Report& report) {
  if (!answer_) return;
  answer_->setEnabled(false);
  answer_.release()->deleteLater();  // it may be in the middle of its signal
  report.answered();
}

}  // namespace qm5
