#include "app_command/command.h"

#include <QCoreApplication>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

#include "app_command/hang_up.h"
#include "app_command/port_order.h"
#include "computer/wakefulness.h"
#include "device_link/driver.h"
#include "platform/clock.h"
#include "platform/fatal.h"
#include "platform/line_recorder.h"
#include "platform/system_log.h"
#include "update_run/device_state_text.h"
#include "update_run/packaged_image.h"
#include "update_run/target_version.h"

namespace qm5 {
namespace {

// The finest that the texts of the progress tell.
constexpr std::chrono::seconds kTick{1};

constexpr std::string_view kEndsAfterUpdate =
    "The program ends once the update has ended. A second signal ends it at once.";
constexpr std::string_view kDisconnected =
    "The QM5 has been disconnected. When this update has ended, start it again.";
constexpr std::string_view kNotBack =
    "The QM5 was not power-cycled in time, so its version is not known.";

// What is attached at the start has been announced by then.
constexpr double kAnnounceTime = 1.0;  // seconds

// udev gives the right to open a QM5 some moments after its arrival.
constexpr std::chrono::seconds kPermissionTime{2};

// For one request.
constexpr double kUsualAnswerTime = 5;  // seconds

// A run that says nothing for longer waits for the QM5.
constexpr double kUsualOpeningTime = 6;  // seconds

// To which of several QM5s the update goes.
std::string whichOf(const DeviceState& bus) {
  std::string text = describe(bus);
  text.resize(std::min(text.find('\n'), text.size()));  // how to choose another one by hand
  return text.append(" --device chooses another one.");
}

}  // namespace

Command::Command(CommandOptions options, Report& report)
    : options_(std::move(options)),
      target_version_(options_.target.value_or(std::string(kTargetVersion))),
      report_(report),
      presence_([this] { main_queue_.async([this] { busChanged(); }); }),
      power_cycle_(PowerCycleCheck::follow(
          [this](std::function<void()> step) { main_queue_.async(std::move(step)); })),
      jobs_("tool.qm5-updater.update", DispatchQueue::Attribute::concurrent) {
  subject_.target_version = target_version_;
  subject_.device = options_.device.value_or("");
  QObject::connect(&tick_, &QTimer::timeout, [this] { showProgress(); });
  timer_.setSingleShot(true);
  QObject::connect(&timer_, &QTimer::timeout, [this] { late_(); });
  permission_timer_.setSingleShot(true);
  QObject::connect(&permission_timer_, &QTimer::timeout, [this] { noteUnusable(); });
  global_driver = std::make_shared<Driver>(kVendorTexasInstruments, kProductQM5);
  attached_.announceMissed();
}

void Command::start() {
  main_queue_.async([this] {
    if (options_.list) return after(kAnnounceTime, [this] { list(); });
    if (!options_.wait) return begin();
    report_.note(subject_, "Waiting for a QM5.");
    after(*options_.wait, [this] {
      if (stage_ == Stage::waiting) begin();
    });
    busChanged();
  });
}

void Command::after(double seconds, std::function<void()> late) {
  timer_.stop();
  late_ = std::move(late);
  if (!std::isinf(seconds)) timer_.start(std::chrono::milliseconds(std::llround(seconds * 1000)));
}

void Command::busChanged() {
  if (stage_ == Stage::waiting && options_.wait) {
    if (presence_.state().used) return begin();
    permission_timer_.start(kPermissionTime);
  }
  if (stage_ == Stage::running) showProgress();
}

// The QM5 that is there is not the one that is waited for.
void Command::noteUnusable() {
  const DeviceState bus = presence_.state();
  if (stage_ != Stage::waiting || bus.used || bus.present.empty()) return;
  std::string text;
  for (const std::string& line : unusableLines(bus))
    text.append(text.empty() ? "" : " ").append(line);
  if (std::exchange(noted_bus_, text) != text) report_.note(subject_, text);
}

void Command::list() {
  std::vector<AttachedDevice> devices = attached_.list();
  std::stable_sort(devices.begin(), devices.end(), [](const auto& one, const auto& other) {
    return PortOrder()(one.location, other.location);
  });
  const bool submitted = jobs_.async([this, devices = std::move(devices)]() mutable {
    for (AttachedDevice& each : devices) {
      main_queue_.async([this, place = each.location] { awaitVersion(place); });
      readVersion(each);
      main_queue_.async([this, each] { report_.listed(each); });
    }
    main_queue_.async([this, count = devices.size()] {
      end(listedVerdict(count, options_.device.value_or("")));
    });
  });
  if (!submitted) cannotStart("there is no thread left to ask the QM5s for their versions");
}

// Requests have no time-out.
void Command::awaitVersion(const std::string& place) {
  after(kUsualAnswerTime, [this, place] {
    report_.note({.device = place},
                 "The QM5 at port " + place +
                     " does not answer. The list goes on once it does or is unplugged.");
  });
}

void Command::begin() {
  stage_ = Stage::running;
  holdHangUps();
  if (!options_.only_check) {
    loadImage();
    activity_ = wakefulness().beginActivity(kActivityReason, [this] {
      main_queue_.async([this] {
        may_sleep_ = true;
        if (percent_ && stage_ == Stage::running) report_.note({}, kMaySleepText);
      });
    });
  }
  began_ = processClock().now();
  pace_.emplace(began_, chunksOf(image_));
  device_.emplace(began_);
  tick_.start(kTick);
  if (!jobs_.async([this] { run(); })) {
    log(kNoThreadLine);
    runEnded({.outcome = Outcome::updateFailed,
              .lines = {std::string(kNoThreadLine)},
              .device = DeviceChange::none});
  }
}

void Command::loadImage() {
  const LineRecorder recorder;
  image_ = options_.image ? qm5::loadImage(*options_.image) : loadPackagedImage();
  if (!image_) image_error_ = recorder.lines().back();
}

// The update's job. It never waits for the main thread.
void Command::run() {
  const ProgressCallback progress = [this](std::string_view, double percent) {
    main_queue_.async([this, step = ++steps_, percent] { progressed(step, percent); });
  };
  RunRecord record = runRecorded({.link = *global_driver,
                                  .image = image_,
                                  .target_version = target_version_,
                                  .progress = progress,
                                  .version = version_,
                                  .only_check = options_.only_check});
  main_queue_.async([this, record = std::move(record)] { runEnded(record); });
}

void Command::progressed(std::size_t step, double percent) {
  if (step == 1) noteOpening(presence_.state());
  pace_->progressed(step, processClock().now());
  percent_ = percent;
  showProgress();
}

void Command::noteOpening(const DeviceState& bus) {
  {
    const std::lock_guard lock(mutex_);
    if (!bus.location.empty()) subject_.device = bus.location;
    subject_.version = version_;
  }
  if (!options_.image && isDevelopmentImage()) report_.note({}, kDevelopmentImageText);
  if (may_sleep_) report_.note({}, kMaySleepText);
  if (bus.present.size() > 1) report_.note(subject_, whichOf(bus));
  report_.updating(subject_);
}

void Command::showProgress() {
  const double now = processClock().now();
  const UpdatedDevice device = device_->compare(presence_.state(), now);
  pace_->deviceIs(device);
  pace_->answered(global_driver->lastAnswer());
  if (!percent_ && now - began_ < kUsualOpeningTime) return;
  std::string_view warning = pace_->warning(now);
  if (!warning.empty() && device == UpdatedDevice::away) warning = kDisconnected;
  if (std::exchange(noted_warning_, warning) != warning && !warning.empty())
    report_.note(subject_, warning);
  report_.progressed(subject_, {.percent = percent_,
                                .phase = pace_->phase(now),
                                .elapsed = pace_->elapsed(now),
                                .remaining = pace_->remaining(now)});
}

void Command::runEnded(const RunRecord& record) {
  tick_.stop();
  prompt_.withdraw(report_);
  activity_.reset();
  const DeviceState bus = presence_.state();
  const bool is_unnamed = record.outcome != Outcome::noDevice && !percent_ && !bus.location.empty();
  {
    const std::lock_guard lock(mutex_);
    // A QM5 that has left has no place any more; with --device it is known all the same.
    if (is_unnamed) subject_.device = bus.location;
    subject_.version = version_;
  }
  if (is_unnamed && bus.present.size() > 1) report_.note(subject_, whichOf(bus));
  const Verdict verdict = verdictOf(record, {.version = version_,
                                             .target_version = target_version_,
                                             .image_file = options_.image.value_or(""),
                                             .image_error = image_error_,
                                             .bus = bus,
                                             .place = options_.device.value_or("")});
  if (record.outcome != Outcome::updated || !options_.confirm) return end(verdict);
  if (is_end_requested_) return end(endedUnconfirmedVerdict());
  confirm(verdict, bus);
}

void Command::confirm(const Verdict& update, const DeviceState& bus) {
  stage_ = Stage::confirming;
  releaseHangUps();
  report_.confirming(subject_, update);
  after(*options_.confirm, [this] { end(unconfirmedVerdict(kNotBack)); });
  power_cycle_->begin(
      {.device = bus,
       .expected_version = target_version_,
       .submit = [this](std::function<void()> job) { return jobs_.async(std::move(job)); },
       .show =
           [this](PowerCycle state, std::string_view text) {
             if (state == PowerCycle::confirmed) return end(confirmedVerdict(text));
             if (state == PowerCycle::unconfirmed) return end(unconfirmedVerdict(text));
             report_.note(subject_, text);
           }});
}

void Command::requestEnd(std::function<void()> declined) {
  main_queue_.async([this, declined = std::move(declined)] { handleEndRequest(declined); });
}

void Command::handleEndRequest(const std::function<void()>& declined) {
  if (stage_ != Stage::running || options_.only_check) return end(ended());
  const bool is_asked =
      prompt_.ask(report_, [this, declined](bool quit) { quit ? end(ended()) : declined(); });
  if (is_asked) return;
  is_end_requested_ = true;
  report_.note({}, kEndsAfterUpdate);
}

void Command::end(const Verdict& verdict) {
  stage_ = Stage::over;
  QCoreApplication::exit(conclude(verdict));
}

int Command::endAtOnce() {
  return conclude(ended());
}

Verdict Command::ended() const {
  if (stage_ == Stage::confirming) return endedUnconfirmedVerdict();
  return endedVerdict(stage_ == Stage::running && !options_.only_check);
}

int Command::conclude(const Verdict& verdict) {
  const std::lock_guard lock(mutex_);
  if (!status_) {
    status_ = verdict.status;
    report_.answered();  // as nobody will answer any more
    report_.ended(subject_, verdict);
  }
  return static_cast<int>(*status_);
}

}  // namespace qm5
