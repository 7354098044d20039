#include "app_shell/progress_window.h"

#include <utility>

#include "app_shell/exit_confirmation.h"
#include "app_shell/ports/application.h"
#include "device_link/driver.h"
#include "platform/clock.h"
#include "platform/fatal.h"
#include "platform/system_log.h"

namespace qm5 {

ProgressViewController::ProgressViewController(std::shared_ptr<DeviceStatusPresenter> bus)
    : bus_(std::move(bus)) {}

void ProgressViewController::updateBegan(std::size_t chunks) {
  is_up_ = true;
  const double now = processClock().now();
  device_ = DeviceOfUpdate(now);
  pace_ = UpdatePace(now, chunks);
  required(sleepStatus.lock(), "no sleepStatus").setStatus(StatusKind::caution, "");
  showPace();
}

void ProgressViewController::progressed(const ProgressStep& step) {
  const double now = processClock().now();
  pace_.progressed(step.number, now);
  if (pace_.phase(now) != phase_) showPace();
}

void ProgressViewController::sleepIsNotPrevented() {
  required(sleepStatus.lock(), "no sleepStatus").setStatus(StatusKind::caution, kMaySleepText);
}

void ProgressViewController::busChanged() {
  if (is_up_) showPace();
}

void ProgressViewController::showPace() {
  const double now = processClock().now();
  pace_.deviceIs(device_.compare(bus_->state(), now));
  pace_.answered(required(global_driver, "no device link").lastAnswer());
  phase_ = pace_.phase(now);
  required(txtElapsed.lock(), "no txtElapsed").setStringValue(pace_.elapsed(now));
  required(txtRemaining.lock(), "no txtRemaining").setStringValue(pace_.remaining(now));
  required(txtPhase.lock(), "no txtPhase").setStringValue(phase_);
  required(deviceStatus.lock(), "no deviceStatus")
      .setStatus(StatusKind::caution, pace_.warning(now));
}

void ProgressViewController::viewWillDisappear() {
  is_up_ = false;
  application().stopModal();
}

void ProgressViewController::abortClicked(Button*) {
  log("Abort button clicked");
  showExitConfirmation();
}

void ProgressViewController::showExitConfirmation() {
  ask(false);
}

void ProgressViewController::closeRequested() {
  if (!is_asking_) ask(false);
}

void ProgressViewController::ask(bool unasked) {
  is_asking_ = true;
  askBeforeExit(viewWindow, unasked, [weak = weak_from_this()] {
    if (const auto controller = weak.lock()) controller->goOn();
  });
}

void ProgressViewController::askBeforeTermination(std::function<void()> declined) {
  waiting_.push_back(std::move(declined));
  if (!is_asking_) ask(true);
}

void ProgressViewController::goOn() {
  is_asking_ = false;
  for (const auto& declined : std::exchange(waiting_, {})) declined();
}

ProgressWindowController::ProgressWindowController(
    std::shared_ptr<Window> loaded, const std::shared_ptr<DeviceStatusPresenter>& bus)
    : BaseWindowController(std::move(loaded)) {
  const auto content = std::make_shared<ProgressViewController>(bus);
  content->viewWindow = window;
  content->txtTitle1 = window->textField("txtTitle1");
  content->txtTitle2 = window->textField("txtTitle2");
  content->progressBar = window->progressIndicator("progressBar");
  content->txtElapsed = window->textField("txtElapsed");
  content->txtRemaining = window->textField("txtRemaining");
  content->txtPhase = window->textField("txtPhase");
  content->deviceStatus = window->statusIndicator("deviceStatus");
  content->sleepStatus = window->statusIndicator("sleepStatus");
  contentViewController = content;

  // The window must not keep its own controller alive.
  const std::weak_ptr<ProgressViewController> weak = content;
  window->setAction("btnAbort", [weak](Button* sender) {
    if (const auto controller = weak.lock()) controller->abortClicked(sender);
  });
  window->setCloseRequested([weak] {
    if (const auto controller = weak.lock()) controller->closeRequested();
  });
  bus->setChanged([weak] {
    if (const auto controller = weak.lock()) controller->busChanged();
  });
  window->setViewWillDisappear([weak] {
    if (const auto controller = weak.lock()) controller->viewWillDisappear();
  });
  constexpr double kInterval = 1;  // second: the finest that the texts tell
  window->setTimer(kInterval, [weak] {
    if (const auto controller = weak.lock()) controller->showPace();
  });
  content->viewDidLoad();
}

}  // namespace qm5
