#include "app_shell/view_controller.h"

#include <utility>
#include <variant>

#include "app_shell/progress_window.h"
#include "device_link/vendor_requests.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/fatal.h"
#include "platform/system_log.h"
#include "platform/text.h"
#include "update_engine/secure_flow.h"

namespace qm5 {
namespace {

constexpr std::string_view kImageName = "QM5-combind-051723-secure-Cus-42";
constexpr std::string_view kImageExtension = "bin";

// The version that the packaged image brings. Versions are compared, never ordered. The
// finish dialog and the layout "Main" name it too.
constexpr std::string_view kTargetVersion = "4208";

constexpr std::uint16_t kVendorTexasInstruments = 0x0451;
constexpr std::uint16_t kProductQM5 = 0xACE1;

// A moment for the progress window to appear and for a QM5 just plugged in to be found.
constexpr double kJobStartDelay = 1.0;  // seconds

// The read of the customer version: the device puts it at the start of this register.
constexpr std::uint16_t kVersionRegister = 0x0006;
constexpr std::uint16_t kVersionLength = 9;

constexpr std::string_view kSignaturePadding = "pss";
constexpr bool kAutoReboot = false;  // the update engine does not act on it

constexpr std::string_view kActivityReason = "The firmware of a QM5 is being updated.";

constexpr std::string_view kCheckConnection =
    "There is no QM5 connected!\nCheck your QM5 connection then try again.";

// Neither parsed nor checked here: the update engine does that.
std::optional<Bytes> loadImage() {
  const std::optional<std::string> path = toolkit().pathForResource(kImageName, kImageExtension);
  if (!path) {
    print("No embedded file.");
    return std::nullopt;
  }
  FileContents contents = toolkit().readFile(*path);
  if (const auto* error = std::get_if<FileError>(&contents)) {
    print("Can not access file: " + error->description);
    return std::nullopt;
  }
  Bytes& image = std::get<Bytes>(contents);
  print("Got data size:" + std::to_string(image.size()));
  return std::move(image);
}

}  // namespace

ViewController::ViewController()
    : queue("tool.qm5-updater.update", DispatchQueue::Attribute::concurrent) {
  if (!global_driver)
    global_driver = std::make_shared<Driver>(kVendorTexasInstruments, kProductQM5);
  USB_Handle = global_driver;
}

void ViewController::connectOutlets(const std::shared_ptr<Window>& main_window) {
  viewWindow = main_window;
  btnExit = main_window->button("btnExit");
  btnNext = main_window->button("btnNext");
  busStatus->showIn(main_window->statusLine("busStatus"));
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
  binData = loadImage();
  auto window = toolkit().instantiateWindow("Main", ProgressWindowController::windowNibName);
  progressWindowController =
      window ? std::make_shared<ProgressWindowController>(std::move(window)) : nullptr;
}

void ViewController::btnNextClick(Button*) {
  log("Next Click");
  required(btnExit.lock(), "no button btnExit").setEnabled(false);
  required(btnNext.lock(), "no button btnNext").setEnabled(false);
  activity = toolkit().beginActivity(kActivityReason);
  queue.async([self = shared_from_this()] { self->runUpdate(); });
  showProgressDialog();
  activity.reset();
}

void ViewController::btnExitClick(Button*) {
  log("Exit Click");
  showExitConfirmation();
}

// The update job, on `queue`. It never waits for the main thread.
void ViewController::runUpdate() {
  processClock().sleep(kJobStartDelay);
  log("check if device exist.");
  Driver& link = required(USB_Handle, "no device link");
  if (!link.usb_find()) {
    log("str_NO_DMC");
    return report("No QM5 device !", std::string(kCheckConnection));
  }
  if (!readVersion()) {
    log("Get customer version error.");
    return report("Get customer version error !", std::string(kCheckConnection));
  }
  log("Device found. Out customer version: " + strVersion);
  if (strVersion == kTargetVersion) {
    return report("QM5 no need to update !",
                  "Current QM5 version: " + strVersion + "\nNo need to update.");
  }
  if (!binData) {
    // The one outcome that does not pass through the main queue; the toolkit hands it over.
    return dialogErrorStop(
        "QM5 firmware update data error!",
        "Attached binary file data error.\nPlease download this program and try again.");
  }
  const bool updated = secure_update_binary(
      link, *binData,
      [this](std::string_view title, double progress) { callbackUpdateProgress(title, progress); },
      kSignaturePadding, kAutoReboot);
  if (!updated) {
    return report("Flash firmware error", "Flash ti dmc firmware error, please try again.");
  }
  toolkit().mainQueueAsync([self = shared_from_this()] { self->reportSuccess(); });
}

// Sets `strVersion`: the little-endian number at the start of the reply, as four digits.
bool ViewController::readVersion() {
  strVersion.clear();
  if (!global_driver) return false;
  const std::optional<Bytes> reply =
      global_driver->usb_read(kVendorRead, kRegisterRead, kVersionRegister, 0, kVersionLength);
  if (!reply) return false;
  if (reply->size() < 2) fatal("a version reply shorter than two bytes");
  strVersion += upperHexByte((*reply)[1]);
  strVersion += upperHexByte((*reply)[0]);
  return true;
}

void ViewController::report(std::string title, std::string message) {
  toolkit().mainQueueAsync(
      [self = shared_from_this(), title = std::move(title), message = std::move(message)] {
        self->dialogErrorStop(title, message);
      });
}

void ViewController::reportSuccess() {
  takeProgressWindowDown();
  // The finish dialog runs inside the progress window's modal run, which never returns then.
  activity.reset();
  showCustomDialog();
}

void ViewController::callbackUpdateProgress(std::string_view, double progress) {
  if (!isProgressDisplay) return;
  toolkit().mainQueueAsync([self = shared_from_this(), progress] { self->showProgress(progress); });
}

void ViewController::showProgress(double progress) {
  const auto& controller = required(progressWindowController, "no progress window");
  const auto content =
      std::dynamic_pointer_cast<ProgressViewController>(controller.contentViewController);
  if (!content) return;
  required(content->progressBar.lock(), "no progressBar").setDoubleValue(progress);
  std::string text = "Updating firmware version from ";
  text.append(strVersion).append(" -> ").append(kTargetVersion);
  text.append(", (").append(oneDecimal(progress)).append(" %)");
  required(content->txtTitle2.lock(), "no txtTitle2").setStringValue(text);
  content->progressed(progress);
}

}  // namespace qm5
