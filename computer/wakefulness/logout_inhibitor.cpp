#include "computer/wakefulness/logout_inhibitor.h"

#include <QDBusMessage>
#include <QDBusReply>
#include <QVariant>

#include "platform/system_log.h"

namespace qm5 {
namespace {

constexpr int kReplyTimeout = 10'000;  // milliseconds
constexpr const char* kConnection = "qm5-updater-session";

// Of what the session manager can hold back, the log-out alone: sleep is left to logind.
constexpr unsigned kLogout = 1;

QDBusMessage sessionManagerCall(const char* method, const QVariantList& arguments) {
  QDBusMessage call = QDBusMessage::createMethodCall(
      "org.gnome.SessionManager", "/org/gnome/SessionManager", "org.gnome.SessionManager", method);
  call.setArguments(arguments);
  call.setAutoStartService(false);
  return call;
}

}  // namespace

// A connection of its own, which stays: the session manager drops an inhibitor whose connection
// has gone.
LogoutInhibitor::LogoutInhibitor(const QString& reason)
    : session_bus_(QDBusConnection::connectToBus(QDBusConnection::SessionBus, kConnection)) {
  constexpr unsigned kNoWindow = 0;
  const QDBusReply<unsigned> cookie =
      session_bus_.call(sessionManagerCall("Inhibit", {"qm5-updater", kNoWindow, reason, kLogout}),
                        QDBus::Block, kReplyTimeout);
  if (cookie.isValid()) {
    cookie_ = cookie.value();
  } else {
    log("org.gnome.SessionManager does not hold back a log-out: " +
        cookie.error().message().toStdString());
  }
}

LogoutInhibitor::~LogoutInhibitor() {
  if (cookie_) {
    session_bus_.call(sessionManagerCall("Uninhibit", {*cookie_}), QDBus::Block, kReplyTimeout);
  }
  QDBusConnection::disconnectFromBus(kConnection);
}

}  // namespace qm5
