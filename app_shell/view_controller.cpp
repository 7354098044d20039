#include "app_shell/view_controller.h"

#include <utility>

#include "app_shell/ports/application.h"
#include "app_shell/ports/desktop_notifications.h"
#include "app_shell/power_cycle_status.h"
#include "app_shell/progress_window.h"
#include "computer/wakefulness.h"
#include "platform/fatal.h"
#include "platform/system_log.h"
#include "platform/text.h"
#include "update_run/packaged_image.h"
#include "update_run/target_version.h"

namespace qm5 {
ViewController::ViewController()
    : powerCycleCheck(PowerCycleCheck::follow(
          [](std::function<void()> step) { application().mainQueueAsync(std::move(step)); })),
      queue("tool.qm5-updater.update", DispatchQueue::Attribute::concurrent) {
  if (!global_driver)
    global_driver = std::make_shared<Driver>(kVendorTexasInstruments, kProductQM5);
  USB_Handle = global_driver;
}

void ViewController::connectOutlets(const std::shared_ptr<Window>& main_window) {
  viewWindow = main_window;
  btnExit = main_window->button("btnExit");
  btnNext = main_window->button("btnNext");
  txtPackagedVersion = main_window->textField("txtPackagedVersion");
  deviceStatus->showIn(main_window->statusIndicator("deviceStatus"));
  runReport->showIn(main_window);
  // The window must not keep its own controller alive.
  const std::weak_ptr<ViewController> weak = weak_from_this();
  main_window->setAction("btnNext", [weak](Button* sender) {
    if (const auto controller = weak.lock()) controller->btnNextClick(sender);
  });
  main_window->setAction("btnExit", [weak](Button* sender) {
    if (const auto controller = weak.lock()) controller->btnExitClick(sender);
  });
}

void ViewController::viewDidLoad() {
  BaseViewController::viewDidLoad();
  binData = loadPackagedImage();
  showPackagedVersion();
  auto window = application().instantiateWindow("Main", ProgressWindowController::windowNibName);
  progressWindowController =
      window ? std::make_shared<ProgressWindowController>(std::move(window), deviceStatus)
             : nullptr;
}

// | txtPackagedVersion says             | while                                           |
// |-------------------------------------|-------------------------------------------------|
// | Firmware version in this package: … | the image was read at start                     |
// | …, for the software QM5 alone…      | the same, and it was made for development       |
// | This package has no firmware…       | it is missing or can't be read, which the lines |
// |                                     | of the start say                                |
void ViewController::showPackagedVersion() {
  std::string text =
      "This package has no firmware that can be read: nothing can be updated. Install the package "
      "again.";
  if (binData) {
    text = "Firmware version in this package: ";
    text.append(kTargetVersion);
    if (isDevelopmentImage()) text.append("\n").append(kDevelopmentImageText);
  }
  required(txtPackagedVersion.lock(), "no txtPackagedVersion").setStringValue(text);
}

void ViewController::btnNextClick(Button*) {
  log("Next Click");
  required(btnExit.lock(), "no button btnExit").setEnabled(false);
  required(btnNext.lock(), "no button btnNext").setEnabled(false);
  runReport->clear();
  preventSleep();
  {
    const std::lock_guard lock(mutex);
    endOfRun.reset();
  }
  if (!queue.async([self = shared_from_this()] { self->runUpdateJob(); })) {
    log(kNoThreadLine);
    finishRun({.outcome = Outcome::updateFailed,
               .lines = {std::string(kNoThreadLine)},
               .device = DeviceChange::none});
  }
  isRunUnanswered = true;
  showProgressDialog();
  activity.reset();
}

void ViewController::preventSleep() {
  const auto refused = [weak = weak_from_this(), run = ++runs] {
    const auto controller = weak.lock();
    if (!controller || controller->runs != run || !controller->isProgressDisplay) return;
    const auto& window = required(controller->progressWindowController, "no progress window");
    if (const auto content =
            std::dynamic_pointer_cast<ProgressViewController>(window.contentViewController))
      content->sleepIsNotPrevented();
  };
  activity = wakefulness().beginActivity(kActivityReason,
                                         [refused] { application().mainQueueAsync(refused); });
}

void ViewController::btnExitClick(Button*) {
  log("Exit Click");
  showExitConfirmation();
}

// The update job, on `queue`. It never waits for the main thread.
void ViewController::runUpdateJob() {
  stepsOfRun = 0;
  const ProgressCallback progress = [this](std::string_view title, double percent) {
    callbackUpdateProgress(title, percent);
  };
  finishRun(runRecorded({.link = required(USB_Handle, "no device link"),
                         .image = binData,
                         .target_version = kTargetVersion,
                         .progress = progress,
                         .version = strVersion}));
}

// At the end of the job, on its thread; on the main one for a run that has none.
void ViewController::finishRun(RunRecord record) {
  const Outcome outcome = record.outcome;
  {
    const std::lock_guard lock(mutex);
    endOfRun = outcome;
    runHasEnded.notify_all();
  }
  application().mainQueueAsync([self = shared_from_this(), record = std::move(record)]() mutable {
    self->runReport->runEnded(std::move(record));
  });
  // Before the report: while one window goes and another one comes, none may have the keyboard.
  application().mainQueueAsync(
      [self = shared_from_this(), outcome] { self->notifyOfEnd(outcome); });
  const auto report = [self = shared_from_this(), outcome] { self->report(outcome); };
  passesThroughMainQueue(outcome) ? application().mainQueueAsync(report) : report();
}

void ViewController::report(Outcome outcome) {
  if (outcome == Outcome::updated) return reportSuccess();
  const OutcomeText text = textOf(outcome, strVersion, kTargetVersion);
  dialogErrorStop(text.title, text.message);
}

void ViewController::notifyOfEnd(Outcome outcome) {
  if (isActive) return;
  const OutcomeText text = textOf(outcome, strVersion, kTargetVersion);
  notification =
      desktopNotifications().show(text.title, text.message, [](const std::string& token) {
        application().mainQueueAsync([token] { application().activate(token); });
      });
}

void ViewController::applicationIsActive(bool active) {
  isActive = active;
  if (active) notification.reset();
}

void ViewController::reportSuccess() {
  takeProgressWindowDown();
  // The finish dialog runs inside the progress window's modal run, which never returns then.
  activity.reset();
  showCustomDialog();
}

// Once the finish dialog is shown, which stays as it is until the QM5 has gone.
void ViewController::checkAfterPowerCycle() {
  const std::shared_ptr<Window> main_window = application().mainWindow();
  powerCycleCheck->begin(
      {.device = deviceStatus->state(),
       .expected_version = kTargetVersion,
       .submit =
           [weak = weak_from_this()](std::function<void()> job) {
             // The job keeps the controller alive, as the update job does.
             const auto self = weak.lock();
             return self && self->queue.async([self, job = std::move(job)] { job(); });
           },
       .show = powerCycleStatus(customerFinisheDialog, main_window->statusIndicator("runStatus"))});
}

void ViewController::callbackUpdateProgress(std::string_view, double progress) {
  ++stepsOfRun;
  if (!isProgressDisplay) return;
  const ProgressStep step = {.number = stepsOfRun, .percent = progress};
  application().mainQueueAsync([self = shared_from_this(), step] { self->showProgress(step); });
}

void ViewController::showProgress(const ProgressStep& step) {
  const auto& controller = required(progressWindowController, "no progress window");
  const auto content =
      std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController);
  if (!content) return;
  required(content->progressBar.lock(), "no progressBar").setDoubleValue(step.percent);
  std::string text = "Updating firmware version from ";
  text.append(strVersion).append(" -> ").append(kTargetVersion);
  text.append(", (").append(oneDecimal(step.percent)).append(" %)");
  required(content->txtTitle2.lock(), "no txtTitle2").setStringValue(text);
  content->progressed(step);
}

}  // namespace qm5
