// The dialogs of the main window's controller: progress, errors, success and the exit.

#include <cmath>
#include <limits>
#include <utility>

#include "app_shell/exit_confirmation.h"
#include "app_shell/geometry.h"
#include "app_shell/progress_window.h"
#include "app_shell/view_controller.h"
#include "platform/fatal.h"
#include "platform/system_log.h"

namespace qm5 {
namespace {

constexpr Rect kFinishContent = {{0, 0}, {320, 280}};
constexpr double kHalfWidthWithoutContentView = 160;
constexpr const char* kFinishTitle = "Firmware update successful!";

// Half the width of the dialog's content, in whole points.
double halfWidth(const Window& dialog) {
  const std::optional<Size> content = dialog.contentViewSize();
  if (!content) return kHalfWidthWithoutContentView;
  const double half = std::trunc(content->width / 2);
  constexpr double kLimit = 0x1p63;  // the first value that a signed 64-bit integer lacks
  if (!std::isfinite(half) || half < -kLimit || half >= kLimit)
    fatal("a finish dialog without a usable width");
  return half;
}

void addContent(Window& dialog, Action confirm) {
  dialog.addSubview(ImageView{
      .frame = {{halfWidth(dialog) - 53, 160}, {106, 100}},
      .imageNamed = "qm5_OK",
  });
  dialog.addSubview(Label{
      .frame = {{halfWidth(dialog) - 150, 120}, {300, 20}},
      .text = kFinishTitle,
      .boldSystemFontOfSize = 16,
  });
  dialog.addSubview(Label{
      .frame = {{halfWidth(dialog) - 150, 45}, {300, 60}},
      .text = "New version(QM5 v.4208)\nPlease power cycle your QM5 to apply\nthe new firmware.",
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
  button.action = [](Button*) { toolkit().terminate(); };
  dialog.addSubview(button);
}

}  // namespace

void ViewController::showProgressDialog() {
  const std::shared_ptr<Window> main_window = toolkit().mainWindow();
  std::optional<Point> centre;
  if (main_window) centre = centreOf(main_window->frame());
  isProgressDisplay = true;
  auto& controller = required(progressWindowController, "no progress window");
  if (const auto content =
          std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController)) {
    required(content->progressBar.lock(), "no progressBar").setDoubleValue(0.0);
    content->updateBegan();
  }
  controller.showWindow();
  if (centre) centreOn(*controller.window, *centre);
  toolkit().runModalForWindow(controller.window);
}

void ViewController::takeProgressWindowDown() {
  if (!isProgressDisplay) return;
  toolkit().stopModal();
  required(progressWindowController, "no progress window").close();
  isProgressDisplay = false;
}

void ViewController::dialogErrorStop(const std::string& title, const std::string& message) {
  takeProgressWindowDown();
  const Alert alert = {.messageText = title,
                       .informativeText = message,
                       .buttons = {"OK"},
                       .style = AlertStyle::warning};
  const std::shared_ptr<Window> window = viewWindow.lock();
  if (!window) return;
  window->beginSheet(alert, [self = shared_from_this()](int response) {
    if (response != kAlertFirstButtonReturn) return;
    log("OK pressed");
    required(self->btnExit.lock(), "no button btnExit").setEnabled(true);
    required(self->btnNext.lock(), "no button btnNext").setEnabled(true);
  });
}

void ViewController::showCustomDialog() {
  const std::shared_ptr<Window> main_window = toolkit().mainWindow();
  customerFinisheDialog = toolkit().makeWindow(kFinishContent, WindowStyle::titled);
  Window& dialog = *customerFinisheDialog;
  dialog.setTitle(kFinishTitle);
  centreOn(dialog, centreOf(required(main_window, "no main window").frame()));
  addContent(dialog, [self = weak_from_this()](Button* sender) {
    if (const auto controller = self.lock()) controller->confirmButtonClicked(sender);
  });
  dialog.makeKeyAndOrderFront();
  dialog.setReleasedWhenClosed(true);
  toolkit().runModalForWindow(customerFinisheDialog);
}

void ViewController::showExitConfirmation() {
  askBeforeExit(viewWindow, [] {});
}

bool ViewController::shouldTerminate(std::function<void()> declined) {
  if (!isProgressDisplay) return true;
  auto& controller = required(progressWindowController, "no progress window");
  const auto content =
      std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController);
  required(content, "no progress view").askBeforeTermination(std::move(declined));
  return false;
}

void ViewController::confirmButtonClicked(Button*) {
  log("confirm button clicked");
  if (customerFinisheDialog) customerFinisheDialog->close();
}

}  // namespace qm5
