// The whole program but for its windows and its bus: the shell and all layers below it, with
// a software device right behind the USB port, in virtual time.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "app_shell/main_storyboard.h"
#include "app_shell/view_controller.h"
#include "scripted_application.h"
#include "simulator/direct_bus/direct_bus.h"
#include "virtual_clock.h"

namespace qm5::test {

/// What the person was told, and why.
struct Outcome {
  std::string title;   ///< the title of the alert, or of the finish dialog
  std::string lines;   ///< the console's lines about a failure, each ended by a semicolon
  std::string reason;  ///< in the main window
  bool operator==(const Outcome&) const = default;
};

/// A signed image of four blocks: one of 0xFF, a whole one, the same again, an incomplete one.
/// The low nibble of the first byte is 0 in the second and third block, in one block of the
/// signature and in the last one of the key: there, an input that is still in the device's
/// data register looks like a good reply.
inline Bytes smallImage() {
  std::ifstream file(QM5_SMALL_IMAGE, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

class WholeApp {
 public:
  explicit WholeApp(Bytes image) {
    setUSBRegistry(&bus);
    application.image = std::move(image);
    application.during_finish_dialog = [this] {
      ended_ = true;
      if (during_finish_dialog) during_finish_dialog();
    };
    // A job's first second is enough for the progress window to come up.
    clock.before_sleep = [this] { application.waitUntilModal(); };
    clock.during_sleep = [this](double) {
      if (during_sleep) during_sleep();
    };
    start();
    bus.waitUntilWatched();
  }
  ~WholeApp() {
    end();
    global_driver.reset();
  }

  /// Starts the program.
  void start() {
    application.applicationMain(0, nullptr, mainStoryboard());
    watch_ = application.controller;
    ended_ = false;
  }
  /// Presses Next and sees the run to its end. Starts the program again where the finish
  /// dialog has ended it, and only there.
  Outcome update() {
    transcript.newLines();
    application.main->press("btnNext");
    if (!ended_) application.runUntilAlert();
    Outcome outcome = read(transcript.newLines());
    outcome.reason = application.shown["runStatus"];
    if (!ended_ && during_alert) during_alert();
    if (!ended_) application.answer(kAlertFirstButtonReturn);
    const Lines ready = {"log: OK pressed", "btnExit enabled", "btnNext enabled"};
    EXPECT_EQ(transcript.newLines(), ended_ ? Lines{} : ready);
    clock.newSleeps();
    if (ended_) {
      for (const char* text : {"finish", "powerCycle"}) application.shown[text].clear();
      end();
      start();
    }
    return outcome;
  }

  Transcript transcript;
  VirtualClock clock;
  std::function<void()> during_sleep;
  std::function<void()> during_alert;
  std::function<void()> during_finish_dialog;
  DirectBus bus;
  ScriptedApplication application{transcript};

 private:
  // Jobs keep their controller alive.
  void end() {
    application.controller.reset();
    while (!watch_.expired()) std::this_thread::yield();
  }
  static Outcome read(const Lines& lines) {
    Outcome outcome;
    for (const std::string& line : lines) {
      const auto says = [&](std::string_view text) { return line.find(text) != line.npos; };
      if (line.starts_with("finish titled ")) outcome.title += line.substr(14);
      if (line.starts_with("alert on main: "))
        outcome.title += line.substr(15, line.find(" |") - 15);
      if (says("ailed") || says("is None") || says("out: Invalid"))
        outcome.lines += line.substr(5) + ";";  // behind "out: "
    }
    return outcome;
  }

  std::weak_ptr<void> watch_;
  bool ended_ = false;
};

}  // namespace qm5::test
