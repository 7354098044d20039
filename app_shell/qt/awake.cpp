#include "app_shell/qt/awake.h"

#include "platform/system_log.h"

#ifdef __APPLE__
// Nobody has tried this yet.
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <string>
#else
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDBusUnixFileDescriptor>

#include "app_shell/qt/qt_text.h"
#include "platform/dispatch_queue.h"
#endif

namespace qm5 {

#ifdef __APPLE__

std::shared_ptr<void> keepAwake(std::string_view reason) {
  const CFStringRef shown =
      CFStringCreateWithCString(nullptr, std::string(reason).c_str(), kCFStringEncodingUTF8);
  IOPMAssertionID assertion = kIOPMNullAssertionID;
  const IOReturn result = IOPMAssertionCreateWithName(kIOPMAssertPreventUserIdleSystemSleep,
                                                      kIOPMAssertionLevelOn, shown, &assertion);
  CFRelease(shown);
  if (result != kIOReturnSuccess) {
    log("The computer may fall asleep: error " + std::to_string(result));
    return nullptr;
  }
  return {nullptr, [assertion](void*) { IOPMAssertionRelease(assertion); }};
}

#else

namespace {

constexpr int kPatience = 10'000;  // milliseconds; only the queue below ever waits

// A call to logind takes as long as the bus likes, which the main thread can't.
DispatchQueue& logindQueue() {
  static auto* const queue =
      new DispatchQueue("tool.qm5-updater.awake", DispatchQueue::Attribute::serial);
  return *queue;
}

// Nothing sleeps until every copy of the descriptor is closed. Invalid when it was refused.
QDBusUnixFileDescriptor inhibitSleep(const QString& reason) {
  const QString connection = "qm5-updater-awake";
  QDBusMessage inhibit =
      QDBusMessage::createMethodCall("org.freedesktop.login1", "/org/freedesktop/login1",
                                     "org.freedesktop.login1.Manager", "Inhibit");
  inhibit.setArguments({"sleep:idle:handle-lid-switch", "QM5 Updater", reason, "block"});
  // A new connection each time: a bus that was not there, or has gone, may be there now.
  const QDBusReply<QDBusUnixFileDescriptor> reply =
      QDBusConnection::connectToBus(QDBusConnection::SystemBus, connection)
          .call(inhibit, QDBus::Block, kPatience);
  QDBusConnection::disconnectFromBus(connection);
  if (!reply.isValid())
    log("The computer may fall asleep: " + reply.error().message().toStdString());
  return reply.value();
}

}  // namespace

std::shared_ptr<void> keepAwake(std::string_view reason) {
  // Dropped in the middle of the call, it goes with the call.
  auto inhibitor = std::make_shared<QDBusUnixFileDescriptor>();
  logindQueue().async([inhibitor, reason = qtText(reason)] { *inhibitor = inhibitSleep(reason); });
  return inhibitor;
}

#endif

}  // namespace qm5
