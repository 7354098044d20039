// logind, and a desktop's session manager and notifications, on the bus that
// DBUS_SYSTEM_BUS_ADDRESS names. Prints a line for each call, and one when logind's inhibitor is
// released.
#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QSocketNotifier>
#include <array>
#include <iostream>

namespace {

class Desktop final : public QDBusVirtualObject {
 public:
  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override {
    std::cout << message.member().toStdString();
    for (const QVariant& argument : message.arguments())
      std::cout << ":" << argument.toString().replace('\n', ' ').toStdString();
    std::cout << std::endl;
    if (!message.interface().startsWith("org.freedesktop.login1"))
      return bus.send(message.createReply(7U));  // by which the caller knows what it has asked for
    return bus.send(message.createReply(QVariant::fromValue(inhibitor())));
  }

 private:
  QDBusUnixFileDescriptor inhibitor() {
    // The end that stays here is at its end when nobody holds the other one any more.
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
    const QDBusUnixFileDescriptor inhibitor(ends[1]);
    close(ends[1]);
    auto* const released = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(released, &QSocketNotifier::activated, released, [released] {
      std::cout << "released" << std::endl;
      released->deleteLater();
      released->setEnabled(false);
    });
    return inhibitor;
  }
};

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  Desktop desktop;
  QDBusConnection bus = QDBusConnection::systemBus();
  if (!bus.registerVirtualObject("/", &desktop, QDBusConnection::SubPath)) return 1;
  for (const char* service :
       {"org.freedesktop.login1", "org.freedesktop.Notifications", "org.gnome.SessionManager"})
    if (!bus.registerService(service)) return 1;
  std::cout << "ready" << std::endl;
  return QCoreApplication::exec();
}
