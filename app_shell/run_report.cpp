#include "app_shell/run_report.h"

#include <utility>

#include "platform/fatal.h"

namespace qm5 {
namespace {

constexpr const char* kTitle = "Details of the failed update";
constexpr const char* kIntroduction =
    "These are the lines that the program wrote during the update. To report a problem, run "
    "the command qm5-updater-report in a terminal and attach the file that it makes, together "
    "with these lines.";
constexpr const char* kFileName = "qm5-update-lines.txt";

}  // namespace

void RunReport::showIn(const std::shared_ptr<Window>& main_window) {
  window_ = main_window;
  status_ = main_window->statusIndicator("runStatus");
  details_ = main_window->button("btnDetails");
  main_window->setAction("btnDetails", [weak = weak_from_this()](Button*) {
    if (const auto report = weak.lock()) report->showDetails();
  });
}

void RunReport::runEnded(RunRecord record) {
  const std::string reason = failureReason(record);
  if (reason.empty()) return;
  lines_ = std::move(record.lines);
  show(StatusKind::caution, reason);
}

void RunReport::clear() {
  lines_.clear();
  show(StatusKind::information, "");
}

void RunReport::show(StatusKind kind, const std::string& reason) {
  required(status_.lock(), "no runStatus").setStatus(kind, reason);
  required(details_.lock(), "no btnDetails").setHidden(reason.empty());
}

void RunReport::showDetails() {
  const std::shared_ptr<Window> window = window_.lock();
  if (!window) return;
  std::string text;
  for (const std::string& line : lines_) text.append(line).append("\n");
  window->showText({.title = kTitle,
                    .introduction = kIntroduction,
                    .text = std::move(text),
                    .fileName = kFileName});
}

}  // namespace qm5
