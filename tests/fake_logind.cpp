// A logind that says what is asked of it, on the bus that DBUS_SYSTEM_BUS_ADDRESS names: a line
// when an inhibitor is taken, and one when it is released.
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

class Logind final : public QDBusVirtualObject {
 public:
  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override {
    // The end that stays here is at its end when nobody holds the other one any more.
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    const QDBusUnixFileDescriptor inhibitor(ends[1]);
    close(ends[1]);
    std::cout << message.member().toStdString();
    for (const QVariant& argument : message.arguments())
      std::cout << ":" << argument.toString().toStdString();
    std::cout << std::endl;
    auto* const released = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(released, &QSocketNotifier::activated, released, [released] {
      std::cout << "released" << std::endl;
      released->deleteLater();
      released->setEnabled(false);
    });
    return bus.send(message.createReply(QVariant::fromValue(inhibitor)));
  }
};

}  // namespace

int main(int argc, char** argv) {
  const QCoreApplication application(argc, argv);
  Logind logind;
  QDBusConnection bus = QDBusConnection::systemBus();
  if (!bus.registerVirtualObject("/org/freedesktop/login1", &logind)) return 1;
  if (!bus.registerService("org.freedesktop.login1")) return 1;
  std::cout << "ready" << std::endl;
  return QCoreApplication::exec();
}
