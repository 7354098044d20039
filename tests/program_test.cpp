// The whole program in one process: its windows on Qt's offscreen platform, its threads,
// libusb, and the software QM5 on the emulated bus. A second thread plays the person.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <QAbstractButton>
#include <QApplication>
#include <future>
#include <random>
#include <thread>

#include "app_shell/main_storyboard.h"
#include "app_shell/package/file_package.h"
#include "app_shell/qt/qt_application.h"
#include "app_shell/wakefulness/sleep_inhibitor.h"
#include "device_link/driver.h"
#include "device_monitor/libusb/libusb_registry.h"
#include "platform/fatal.h"
#include "simulator/usb_bus/emulated_bus.h"
#include "support/effort.h"
#include "support/update_requests.h"
#include "support/whole_app.h"

namespace qm5::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 30s;

// The production application and package, but for the image and the end of the process.
class TestedApplication final : public QtApplication, public FilePackage {
 public:
  FileContents readFile(const std::string&) override { return image; }
  void terminate() override { QCoreApplication::exit(0); }
  const Bytes image = smallImage();
};

// A system bus that takes connections and never answers.
void hangSystemBus() {
  sockaddr_un address{AF_UNIX, {}};
  const std::string name = "qm5-hung-bus-" + std::to_string(getpid());
  name.copy(address.sun_path + 1, name.size());
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  const int bus = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(bus, reinterpret_cast<const sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(bus, 5), 0);
  ASSERT_EQ(setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:abstract=" + name).c_str(), 1), 0);
}

class Program : public testing::Test {
 protected:
  Program() {
    hangSystemBus();
    // Nobody has to wait, except for the progress window to come up in a job's first sleep.
    clock.during_sleep = [](double) {
      static thread_local bool is_up = false;  // each job has a thread of its own
      is_up = is_up || eventually([] { return QApplication::activeModalWidget() != nullptr; });
    };
  }

  // What `question` answers on the main thread. Not by way of Qt, whose locks ThreadSanitizer can't
  // see.
  template <typename Question>
  static auto onMain(Question question) {
    std::promise<decltype(question())> answer;
    qm5::application().mainQueueAsync([&] { answer.set_value(question()); });
    auto reply = answer.get_future();
    if (reply.wait_for(kPatience) == std::future_status::timeout) fatal("the main thread is stuck");
    return reply.get();
  }
  // Runs the program while `person` does things; returns when the program has ended.
  void run(const std::function<void()>& person) {
    setUSBRegistry(&LibusbRegistry::create());
    setApplication(application);
    setApplicationPackage(application);
    setWakefulness(new SleepInhibitor);
    static std::string name = "qm5-updater";
    static char* arguments[] = {name.data(), nullptr};
    std::thread acts;
    application->mainQueueAsync([&] {  // once events are served
      acts = std::thread([&] {
        person();
        application->mainQueueAsync([&] { application->terminate(); });
      });
    });
    EXPECT_EQ(application->applicationMain(1, arguments, mainStoryboard()), 0);
    acts.join();
  }

  static QAbstractButton* pressable(const QString& title) {
    for (QWidget* widget : QApplication::allWidgets()) {
      auto* button = qobject_cast<QAbstractButton*>(widget);
      if (button && button->text().remove('&') == title && button->isVisible() &&
          button->isEnabled())
        return button;
    }
    return nullptr;
  }
  template <typename Condition>
  static bool eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!onMain(condition)) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(1ms);
    }
    return true;
  }
  // Waits for a button that can be pressed, and presses it.
  void press(const QString& title) {
    ASSERT_TRUE(eventually([&] { return pressable(title) != nullptr; })) << title.toStdString();
    // Not inside the question: what the press starts may take as long as a modal run.
    application->mainQueueAsync([title] { pressable(title)->click(); });
  }
  void awaitDevice() {
    ASSERT_TRUE(eventually([] { return global_driver->deviceInfo().has_value(); }));
  }
  void expectSuccess() {
    EXPECT_TRUE(eventually([] { return pressable("Confirm  Exit") != nullptr; }));
    EXPECT_TRUE(qm5.signatureHolds());
    EXPECT_EQ(qm5.flash(), flashContents(ByteView(application->image).subspan(kImagePayloadStart)));
  }

  Transcript transcript;
  VirtualClock clock;
  TestedApplication* application = new TestedApplication;
  FaultyQm5 qm5;
};

TEST_F(Program, SendsExactlyTheRequestsOfAnUpdateAndNothingElse) {
  EmulatedBus bus(qm5);
  bus.plug();
  run([&] {
    awaitDevice();
    press("Next");
    expectSuccess();
    EXPECT_FALSE(onMain([] { return QApplication::windowIcon().isNull(); }));
    for (const std::string& line : transcript.newLines())
      EXPECT_FALSE(line.starts_with("log: The computer may")) << "it waited for the system bus";
  });
  EXPECT_EQ(qm5.breaches(), std::vector<std::string>{});
  Lines seen, expected;
  for (const RequestRecord& request : qm5.requests())
    seen.push_back(describe({request.setup, isRead(request.setup) ? Bytes{} : request.data}));
  for (const WireRequest& request : updateRequests(application->image))
    expected.push_back(describe(request));
  EXPECT_EQ(seen, expected);
  qm5.powerCycle();
  EXPECT_EQ(qm5.version(), 0x4208);
}

// Unplugged in the middle of a request, all along an update; then plugged in again.
TEST_F(Program, SurvivesAnUnplugAtAnyMomentAndTheNextRunSucceeds) {
  EmulatedBus bus(qm5);
  // By the last two, the device has taken the image and comes back with its new version.
  const std::size_t requests = updateRequests(application->image).size() - 2;
  std::mt19937 random(20'260'101);
  const std::size_t rounds = effort<std::size_t>(16, 300);
  run([&] {
    for (std::size_t round = 1; round <= rounds; ++round) {
      // The first ones in order: they are the openings of an update.
      const std::size_t moment = round < 12 ? round : 1 + random() % requests;
      bus.plug();
      awaitDevice();
      qm5.addFault({.kind = FaultKind::unplug, .number = qm5.requestCount() + moment});
      press("Next");
      ASSERT_TRUE(eventually([] { return !global_driver->deviceInfo().has_value(); })) << moment;
      press("OK");  // of its alert
      qm5.clearRequests();
    }
    bus.plug();
    awaitDevice();
    press("Next");
    expectSuccess();
  });
  report(std::to_string(rounds) +
         " unplugs in the middle of a run: each its alert, the next run right");
}

}  // namespace
}  // namespace qm5::test
