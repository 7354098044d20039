#include "computer/wakefulness/sleep_inhibitor.h"

#include <utility>

#include "platform/system_log.h"

#ifdef __APPLE__
// Untested: nobody has built this on a Mac yet.
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <string>
#else
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>
#include <QString>
#include <optional>

#include "computer/wakefulness/logout_inhibitor.h"
#include "platform/dispatch_queue.h"
#endif

namespace qm5 {

#ifdef __APPLE__

std::shared_ptr<void> SleepInhibitor::beginActivity(std::string_view reason,
                                                    std::function<void()> refused) {
  const CFStringRef shown =
      CFStringCreateWithCString(nullptr, std::string(reason).c_str(), kCFStringEncodingUTF8);
  IOPMAssertionID assertion = kIOPMNullAssertionID;
  const IOReturn result = IOPMAssertionCreateWithName(kIOPMAssertPreventUserIdleSystemSleep,
                                                      kIOPMAssertionLevelOn, shown, &assertion);
  CFRelease(shown);
  if (result != kIOReturnSuccess) {
    log("The computer may fall asleep: error " + std::to_string(result));
    refused();
    return nullptr;
  }
  return {nullptr, [assertion](void*) { IOPMAssertionRelease(assertion); }};
}

#else

namespace {

constexpr int kReplyTimeout = 10'000;  // milliseconds

// What would end an update: a shutdown, sleep, and the keys and the lid that lead there. systemd
// 252 lets the person's own "systemctl suspend" pass all the same, and the update goes on after the
// wake; 257 refuses it.
constexpr const char* kLocks =
    "shutdown:sleep:idle:handle-power-key:handle-suspend-key:handle-lid-switch";

// Calls to logind and to the session manager wait for their buses, so they run on a queue of their
// own and never on the main thread.
DispatchQueue& inhibitorQueue() {
  static auto* const queue =
      new DispatchQueue("tool.qm5-updater.awake", DispatchQueue::Attribute::serial);
  return *queue;
}

// Takes logind's lock. It holds until every copy of the returned descriptor is closed; the
// descriptor is invalid when logind has refused.
QDBusUnixFileDescriptor inhibitSleep(const QString& reason) {
  const QString connection = "qm5-updater-awake";
  QDBusMessage inhibit =
      QDBusMessage::createMethodCall("org.freedesktop.login1", "/org/freedesktop/login1",
                                     "org.freedesktop.login1.Manager", "Inhibit");
  inhibit.setArguments({kLocks, "QM5 Updater", reason, "block"});
  // A new connection for each call, since the system bus may have started or restarted.
  const QDBusReply<QDBusUnixFileDescriptor> reply =
      QDBusConnection::connectToBus(QDBusConnection::SystemBus, connection)
          .call(inhibit, QDBus::Block, kReplyTimeout);
  QDBusConnection::disconnectFromBus(connection);
  if (!reply.isValid())
    log("The computer may fall asleep: " + reply.error().message().toStdString());
  return reply.value();
}

}  // namespace

std::shared_ptr<void> SleepInhibitor::beginActivity(std::string_view reason,
                                                    std::function<void()> refused) {
  const QString shown = QString::fromStdString(std::string(reason));
  // When the caller drops the token during the call, the queue's copy keeps the descriptor
  // until the call has returned, and then closes it.
  const auto lock = std::make_shared<QDBusUnixFileDescriptor>();
  const bool submitted = inhibitorQueue().async([lock, shown, refused] {
    *lock = inhibitSleep(shown);
    if (!lock->isValid()) refused();
  });
  if (!submitted) {
    log("The computer may fall asleep: there is no thread left to ask logind");
    refused();
  }
  // Behind logind's call, which it must not delay; begun and ended on the queue alone.
  const auto log_out = std::make_shared<std::optional<LogoutInhibitor>>();
  inhibitorQueue().async([log_out, shown] { log_out->emplace(shown); });
  return {nullptr,
          [lock, log_out](void*) { inhibitorQueue().async([log_out] { log_out->reset(); }); }};
}

#endif

}  // namespace qm5
