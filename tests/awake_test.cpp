// Keeping the computer awake, against a logind of our own on a bus of our own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QDBusVirtualObject>
#include <QTest>
#include <array>
#include <csignal>
#include <cstdio>
#include <deque>

#include "app_shell/qt/awake.h"
#include "support/transcript.h"

namespace qm5::test {
namespace {

// Keeps what it is asked until the test has it answered.
class Logind final : public QDBusVirtualObject {
 public:
  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
    EXPECT_EQ(message.interface() + "." + message.member(),
              "org.freedesktop.login1.Manager.Inhibit");
    QString arguments;
    for (const QVariant& argument : message.arguments()) arguments += argument.toString() + "|";
    EXPECT_EQ(arguments, "sleep:idle:handle-lid-switch|QM5 Updater|why|block|");
    message.setDelayedReply(true);
    asked.push_back(message);
    return true;
  }
  std::deque<QDBusMessage> asked;
};

class Awake : public testing::Test {
 protected:
  // A session's bus stands in for the system's, which has other rules.
  Awake() {
    FILE* const daemon = popen("dbus-daemon --session --fork --print-pid --print-address", "r");
    std::array<char, 256> address{};
    EXPECT_EQ(std::fscanf(daemon, "%255s %d", address.data(), &daemon_), 2);
    pclose(daemon);
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", address.data());
    QDBusConnection bus = QDBusConnection::connectToBus(QDBusConnection::SystemBus, "logind");
    EXPECT_TRUE(bus.registerVirtualObject("/org/freedesktop/login1", &logind_));
    EXPECT_TRUE(bus.registerService("org.freedesktop.login1"));
  }
  ~Awake() override { endBus(); }
  void endBus() const { kill(daemon_, SIGKILL); }
  bool isAsked() {
    return QTest::qWaitFor([this] { return !logind_.asked.empty(); });
  }
  // Hands out an inhibitor and returns the descriptor by which logind sees its end.
  int grant() {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe2(ends.data(), O_NONBLOCK | O_CLOEXEC), 0);
    const auto inhibitor = QVariant::fromValue(QDBusUnixFileDescriptor(ends[1]));
    close(ends[1]);
    QDBusConnection("logind").send(logind_.asked.front().createReply(inhibitor));
    logind_.asked.pop_front();
    return ends[0];
  }
  static bool isHeld(int inhibitor) {
    char none = 0;
    return read(inhibitor, &none, 1) != 0;
  }
  static bool isReleased(int inhibitor) {
    return QTest::qWaitFor([=] { return !isHeld(inhibitor); });
  }

  Transcript transcript;
  Logind logind_;

 private:
  int count_ = 0;
  QCoreApplication application_{count_, nullptr};
  pid_t daemon_ = 0;
};

TEST_F(Awake, HoldsOneInhibitorForEachTokenWaitsForNoAnswerAndSaysThatThereIsNone) {
  std::shared_ptr<void> token = keepAwake("why");
  ASSERT_TRUE(isAsked());
  const int first = grant();
  QTest::qWait(50);
  EXPECT_TRUE(isHeld(first));
  token.reset();
  EXPECT_TRUE(isReleased(first));

  keepAwake("why");  // has gone before it is answered
  token = keepAwake("why");
  ASSERT_TRUE(isAsked());
  EXPECT_TRUE(isReleased(grant()));
  ASSERT_TRUE(isAsked());
  const int last = grant();
  QTest::qWait(50);
  EXPECT_TRUE(isHeld(last));
  EXPECT_TRUE(logind_.asked.empty());
  EXPECT_EQ(transcript.take(), Lines{});

  endBus();
  keepAwake("why");
  Lines lines;
  EXPECT_TRUE(QTest::qWaitFor([&] { return !(lines = transcript.take()).empty(); }));
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].starts_with("log: The computer may fall asleep: ")) << lines[0];
}

}  // namespace
}  // namespace qm5::test
