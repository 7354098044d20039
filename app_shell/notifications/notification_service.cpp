#include "app_shell/notifications/notification_service.h"

#include <QDBusMessage>
#include <QDBusReply>
#include <QStringList>
#include <QVariant>
#include <utility>

#include "platform/dispatch_queue.h"
#include "platform/system_log.h"

namespace qm5 {
namespace {

constexpr int kReplyTimeout = 10'000;  // milliseconds
constexpr const char* kConnection = "qm5-updater-notifications";
constexpr const char* kService = "org.freedesktop.Notifications";  // its interface as well
constexpr const char* kPath = "/org/freedesktop/Notifications";

// What the service calls a notification that there is not.
constexpr uint kNone = 0;

// Calls wait for the session bus, so they run on a queue of their own and never on the main
// thread.
DispatchQueue& serviceQueue() {
  static auto* const queue =
      new DispatchQueue("tool.qm5-updater.notifications", DispatchQueue::Attribute::serial);
  return *queue;
}

QDBusMessage serviceCall(const char* method, const QVariantList& arguments) {
  QDBusMessage call = QDBusMessage::createMethodCall(kService, kPath, kService, method);
  call.setArguments(arguments);
  return call;
}

}  // namespace

std::shared_ptr<void> NotificationService::show(const std::string& title, const std::string& text,
                                                Pressed pressed) {
  const auto id = std::make_shared<uint>(kNone);
  serviceQueue().async([this, id, title, text, pressed = std::move(pressed)] {
    *id = notify(QString::fromStdString(title), QString::fromStdString(text));
    if (*id != kNone) shown_[*id] = {pressed, {}};
  });
  return {nullptr, [this, id](void*) { serviceQueue().async([this, id] { close(*id); }); }};
}

// One connection for all: a service may take notifications away whose program has left the bus.
QDBusConnection NotificationService::sessionBus() {
  QDBusConnection bus(kConnection);
  if (bus.isConnected()) return bus;
  QDBusConnection::disconnectFromBus(kConnection);
  bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, kConnection);
  bus.connect({}, kPath, kService, "ActivationToken", this, SLOT(noteToken(uint, QString)));
  bus.connect({}, kPath, kService, "ActionInvoked", this, SLOT(noteAction(uint)));
  return bus;
}

uint NotificationService::notify(const QString& title, const QString& text) {
  constexpr int kUsualTime = -1;
  const QDBusReply<uint> id = sessionBus().call(
      serviceCall("Notify",
                  {"QM5 Updater", kNone, "qm5-updater", title, text, QStringList{"default", "Show"},
                   QVariantMap{{"desktop-entry", "qm5-updater"}}, kUsualTime}),
      QDBus::Block, kReplyTimeout);
  if (id.isValid()) return id.value();
  log("The desktop shows no notification: " + id.error().message().toStdString());
  return kNone;
}

void NotificationService::close(uint id) {
  if (shown_.erase(id) == 0) return;
  sessionBus().call(serviceCall("CloseNotification", {id}), QDBus::Block, kReplyTimeout);
}

// A signal may come before its notification's id: on the queue, it waits for that.
void NotificationService::noteToken(uint id, const QString& activation_token) {
  serviceQueue().async([this, id, token = activation_token.toStdString()] {
    const auto shown = shown_.find(id);
    if (shown != shown_.end()) shown->second.activation_token = token;
  });
}

void NotificationService::noteAction(uint id) {
  serviceQueue().async([this, id] {
    const auto shown = shown_.find(id);
    if (shown != shown_.end()) shown->second.pressed(shown->second.activation_token);
  });
}

}  // namespace qm5
