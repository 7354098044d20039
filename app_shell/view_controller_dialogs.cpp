// The dialogs of the main window's controller: progress, errors, success and the exit.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <utility>

#include "app_shell/exit_confirmation.h"
#include "app_shell/geometry.h"
#include "app_shell/ports/application.h"
#include "app_shell/progress_window.h"
#include "app_shell/view_controller.h"
#include "platform/console.h"
#include "platform/fatal.h"
#include "platform/system_log.h"
#include "update_run/target_version.h"

namespace qm5 {
namespace {

constexpr Rect kFinishContent = {{0, 0}, {320, 280}};
constexpr double kHalfWidthWithoutContentView = 160;

// Half the width of the dialog's content, in whole points.
double halfWidth(Window& dialog) {
  const std::optional<Size> content = dialog.contentViewSize();
  if (!content) return kHalfWidthWithoutContentView;
  const double half = std::trunc(content->width / 2);
  constexpr double kLimit = 0x1p63;  // the first value that a signed 64-bit integer lacks
  if (!std::isfinite(half) || half < -kLimit || half >= kLimit)
    fatal("a finish dialog without a usable width");
  return half;
}

void addContent(Window& dialog, const OutcomeText& success, Action confirm) {
  dialog.addSubview(ImageView{
      .frame = {{halfWidth(dialog) - 53, 160}, {106, 100}},
      .imageNamed = "qm5_OK",
  });
  dialog.addSubview(Label{
      .frame = {{halfWidth(dialog) - 150, 120}, {300, 20}},
      .text = success.title,
      .boldSystemFontOfSize = 16,
  });
  dialog.addSubview(Label{
      .frame = {{halfWidth(dialog) - 150, 45}, {300, 60}},
      .text = success.message,
      .boldSystemFontOfSize = std::nullopt,
      .wraps = true,
  });
  PushButton button = {.frame = {},
                       .title = "Confirm & Exit",
                       .bezelStyle = BezelStyle::none,
                       .action = std::move(confirm)};
  button.frame = {{halfWidth(dialog) - 150, 10}, {300, 40}};
  button.bezelStyle = BezelStyle::rounded;
  // Overwritten on purpose: pressing it ends the application.
  button.action = [](Button*) { application().terminate(); };
  dialog.addSubview(button);
}

}  // namespace

void ViewController::showProgressDialog() {
  const std::shared_ptr<Window> main_window = application().mainWindow();
  std::optional<Point> centre;
  if (main_window) centre = centreOf(main_window->frame());
  isProgressDisplay = true;
  auto& controller = required(progressWindowController, "no progress window");
  if (const auto content =
          std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController)) {
    required(content->progressBar.lock(), "no progressBar").setDoubleValue(0.0);
    content->updateBegan(chunksOf(binData));
  }
  controller.showWindow();
  if (centre) centreOn(*controller.window, *centre);
  application().runModalForWindow(controller.window);
}

void ViewController::takeProgressWindowDown() {
  if (!isProgressDisplay) return;
  application().stopModal();
  required(progressWindowController, "no progress window").close();
  isProgressDisplay = false;
}

void ViewController::dialogErrorStop(const std::string& title, const std::string& message) {
  takeProgressWindowDown();
  const Alert alert = {.messageText = title,
                       .informativeText = message,
                       .firstButton = "OK",
                       .otherButtons = {},
                       .style = AlertStyle::warning,
                       .comesUnasked = true};
  const std::shared_ptr<Window> window = viewWindow.lock();
  if (!window) return;
  window->beginSheet(alert, [self = shared_from_this()](int response) {
    if (response != kAlertFirstButtonReturn) return;
    log("OK pressed");
    self->isRunUnanswered = false;
    required(self->btnExit.lock(), "no button btnExit").setEnabled(true);
    required(self->btnNext.lock(), "no button btnNext").setEnabled(true);
  });
}

void ViewController::showCustomDialog() {
  const std::shared_ptr<Window> main_window = application().mainWindow();
  customerFinisheDialog = application().makeWindow(kFinishContent, WindowStyle::titled);
  const OutcomeText success = textOf(Outcome::updated, strVersion, kTargetVersion);
  Window& dialog = *customerFinisheDialog;
  dialog.setTitle(success.title);
  centreOn(dialog, centreOf(required(main_window, "no main window").frame()));
  addContent(dialog, success, [self = weak_from_this()](Button* sender) {
    if (const auto controller = self.lock()) controller->confirmButtonClicked(sender);
  });
  dialog.makeKeyAndOrderFront();
  dialog.setReleasedWhenClosed(true);
  checkAfterPowerCycle();
  application().runModalForWindow(customerFinisheDialog);
}

void ViewController::showExitConfirmation() {
  askBeforeExit(viewWindow, false, [] {});
}

bool ViewController::shouldTerminate(std::function<void()> declined) {
  if (!isProgressDisplay) return true;
  auto& controller = required(progressWindowController, "no progress window");
  const auto content =
      std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController);
  required(content, "no progress view").askBeforeTermination(std::move(declined));
  return false;
}

int ViewController::endWithoutDisplay() {
  if (!isRunUnanswered) return EXIT_FAILURE;
  std::unique_lock lock(mutex);
  runHasEnded.wait(lock, [this] { return endOfRun.has_value(); });
  const OutcomeText text = textOf(*endOfRun, strVersion, kTargetVersion);
  std::string line = "The display has gone. The update ended: " + text.title + " " + text.message;
  std::replace(line.begin(), line.end(), '\n', ' ');
  print(line);
  log(line);
  const bool is_up_to_date = endOfRun == Outcome::updated || endOfRun == Outcome::upToDate;
  return is_up_to_date ? EXIT_SUCCESS : EXIT_FAILURE;
}

void ViewController::confirmButtonClicked(Button*) {
  log("confirm button clicked");
  if (customerFinisheDialog) customerFinisheDialog->close();
}

}  // namespace qm5
