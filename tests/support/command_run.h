// qm5-update in one process with a QM5 that can be made to fail, held against what the replies say.
#pragma once

#include <QCoreApplication>
#include <future>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "app_command/command.h"
#include "firmware_image/firmware_image.h"
#include "support/effort.h"
#include "support/text_rules.h"
#include "support/virtual_event_loop.h"

namespace qm5::test {

/// qm5-update --confirm in virtual time, with a QM5 right behind the port. It keeps what was
/// reported last, and whenever the update sleeps, it holds what is said against what is so.
class CommandRun final : public Report {
 public:
  CommandRun() {
    adapters_.image = smallImage();
    clock_.during_sleep = [this](double) { slept(); };
  }

  /// Tries one update with that fault, after which a QM5 that has left comes back during the next
  /// sleep, or not. Where it succeeds, a power cycle follows. Returns what is not as it must be.
  std::string tryUpdate(const std::optional<Fault>& fault, bool comes_back) {
    renewDevice(fault, comes_back);
    bus_.emplace();
    setUSBRegistry(&*bus_);
    CommandOptions options;
    options.wait = options.confirm = std::numeric_limits<double>::infinity();
    Command command(options, *this);
    command.start();
    bus_->waitUntilWatched();
    bus_->plug(*device_);
    const int status = QCoreApplication::exec();
    const Outcome update = moment_.said.outcome(!bus_->isPlugged());
    // Nothing else takes a command apart: what its threads hold may still follow the bus.
    global_driver.reset();
    bus_.reset();
    while (!isOnlyThread()) std::this_thread::yield();
    std::string expected = "1failed" + update.title + update.reason;
    if (update.title.starts_with("Get")) expected.replace(1, 6, "no-version");
    if (update.title == kFinish && is_good_) {
      expected =
          *is_good_
              ? "0confirmedThe QM5 came back and reported version 4208. The update is complete."
              : "1unconfirmedThe QM5 came back and still reported version 4201, not 4208. "
                "Start the updater again and repeat the update.";
    }
    std::string ending = std::to_string(status) + verdict_.outcome + verdict_.lines.front();
    if (verdict_.lines.size() > 1) ending.append(verdict_.lines.back());
    for (const std::string& breach : device_->breaches()) ending.append("; ").append(breach);
    ending.append(untrue_);
    return ending == expected ? "" : "\n  ended " + ending + "\n  expected " + expected;
  }
  const Verdict& verdict() const { return verdict_; }
  /// Of the last update that has succeeded.
  const std::vector<RequestRecord>& requests() const { return requests_; }

  // The port.
  void confirming(const Subject&, const Verdict&) override {
    device_->clearFaults();
    requests_ = device_->requests();
    is_good_ = device_->signatureHolds() && device_->flash() == flash_;
    moment_.run = RunState::succeeded;
    moment_.was_away = true;
    shown_.clear();
    loop_.events.post([this] { bus_->unplug(); });
    loop_.events.post([this] { bus_->plug(*device_); });
  }
  void ended(const Subject&, const Verdict& verdict) override { verdict_ = verdict; }
  void note(const Subject&, std::string_view text) override {
    if (text == "Waiting for a QM5.") return;
    note_ = text;
    if (is_good_) checkTexts();
  }
  void updating(const Subject&) override {}
  void progressed(const Subject&, const Progress& progress) override {
    shown_["txtPhase"] = progress.phase;
    shown_["txtElapsed"] = progress.elapsed;
    shown_["txtRemaining"] = progress.remaining;
    if (progress.percent) shown_["progressBar"] = std::to_string(*progress.percent);
  }
  void listed(const AttachedDevice&) override {}
  void engineLine(std::string_view, std::string_view) override {}
  bool ask(std::string_view) override { return false; }
  void answered() override {}

 private:
  struct Loop {
    Loop() { QCoreApplication::setEventDispatcher(&events); }
    QObject owner;  // or the application would own the dispatcher
    VirtualEventLoop events{&owner};
  };

  void renewDevice(const std::optional<Fault>& fault, bool comes_back) {
    const double now = clock_.now();
    moment_ = {RunState::under_way, {}, now, now, now};
    shown_ = {{"progress", "up|"}};
    note_.clear();
    untrue_.clear();
    is_good_.reset();
    comes_back_ = false;
    device_.emplace(Qm5Model({.busy_polls = {{"SFWi", 1}, {"SFWd", 1}, {"SFWs", 1}}}));
    if (fault) device_->addFault(*fault);
    device_->setObserver([this, comes_back](const RequestRecord& record) {
      if (is_good_) return;  // the power cycle
      moment_.note(record, clock_.now());
      comes_back_ = comes_back_ || (comes_back && moment_.said.has_left);
    });
  }
  void slept() {
    // The job goes on once the main thread has done all that it has been given.
    const auto checked = std::make_shared<std::promise<void>>();
    loop_.events.post([this, checked] {
      checkTexts();
      checked->set_value();
    });
    checked->get_future().wait();
    if (!comes_back_ || bus_->isPlugged()) return;
    bus_->plug(*device_);
    moment_.changed_at = clock_.now();
  }
  void checkTexts() {
    moment_.time = clock_.now();
    moment_.is_there = bus_->isPlugged();
    TextCheck::Shown said = shown_;
    const std::string note = std::exchange(note_, "");
    if (note == "The QM5 has been disconnected. When this update has ended, start it again.")
      said["deviceStatus"] = "No QM5 is connected.";  // the same in words of the main window
    else if (!note.empty())
      said[is_good_ ? "powerCycle" : "progress deviceStatus"] = note;
    const std::string untrue = texts_.untrue(said, moment_);
    if (untrue_.empty()) untrue_ = untrue;
  }

  const Bytes flash_ = flashContents(ByteView(smallImage()).subspan(kImagePayloadStart));
  int argument_count_ = 0;
  Loop loop_;
  QCoreApplication application_{argument_count_, nullptr};
  Transcript transcript_;
  VirtualClock clock_;
  std::optional<DirectBus> bus_;
  ScriptedApplication adapters_{transcript_};
  std::optional<FaultyQm5> device_;
  Verdict verdict_;
  std::vector<RequestRecord> requests_;
  TextCheck texts_;
  TextCheck::Shown shown_;
  std::string note_;    // that has not been checked
  std::string untrue_;  // the texts of the first moment that had any
  // Written before the job starts or by the job, until the power cycle.
  Moment moment_;
  std::optional<bool> is_good_;  // once the update has succeeded
  bool comes_back_ = false;
};

}  // namespace qm5::test
