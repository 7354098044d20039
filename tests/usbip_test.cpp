// Software QM5s behind USB/IP, as a host's kernel sees them over its socket.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>

#include "simulator/device/faulty_qm5.h"
#include "simulator/usbip/usbip_server.h"

namespace qm5::test {
namespace {

constexpr std::uint32_t kQm5 = 0x10002;  // bus 1, address 2

Bytes operator+(Bytes bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

Bytes numbers(std::initializer_list<std::uint32_t> values) {
  Bytes bytes;
  for (const std::uint32_t value : values)
    for (const int shift : {24, 16, 8, 0}) bytes.push_back(value >> shift & 0xFF);
  return bytes;
}

Bytes text(std::string_view value, std::size_t size) {
  Bytes bytes(value.begin(), value.end());
  bytes.resize(size);
  return bytes;
}

// A packet about an imported device: numbers, then zeros.
Bytes packet(std::initializer_list<std::uint32_t> values) {
  Bytes bytes = numbers(values);
  bytes.resize(48);
  return bytes;
}
// A transfer in the direction that its setup packet names.
Bytes submit(std::uint32_t sequence, const Bytes& setup, const Bytes& data = {}) {
  const std::uint32_t length = setup[6] + setup[7] * 256U;
  return numbers({1, sequence, kQm5, setup[0] < 0x80 ? 0U : 1U, 0, 0, length, 0, 0, 0}) + setup +
         data;
}
Bytes ended(std::uint32_t sequence, int status, std::size_t length, const Bytes& data = {}) {
  return packet({3, sequence, 0, 0, 0, static_cast<std::uint32_t>(status),
                 static_cast<std::uint32_t>(length)}) +
         data;
}
// A transfer is given up, or has ended before.
Bytes unlink(std::uint32_t sequence, std::uint32_t unlinked) {
  return packet({2, sequence, kQm5, 1, 0, unlinked});
}
Bytes unlinked(std::uint32_t sequence, int status) {
  return packet({4, sequence, 0, 0, 0, static_cast<std::uint32_t>(status)});
}
Bytes import(std::string_view bus_id) {
  return numbers({0x01118003, 0}) + text(bus_id, 32);
}

const Bytes kReadVersion = {0xC0, 0xFE, 0x06, 0, 0, 0, 9, 0};
const Bytes kVersion = {0x01, 0x42, 0, 0, 0, 0, 0, 0, 0};
const Bytes kWriteCommand = {0x40, 0xFD, 0x1E, 0, 4, 0, 4, 0}, kSFWi = {'S', 'F', 'W', 'i'};

class Host {
 public:
  explicit Host(std::uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval patience{20, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
  }
  void send(const Bytes& bytes) const {
    EXPECT_EQ(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize(bytes));
  }
  void expect(const Bytes& expected, const std::string& what = "") const {
    Bytes bytes(expected.size());
    EXPECT_EQ(recv(socket_.get(), bytes.data(), bytes.size(), MSG_WAITALL), ssize(bytes)) << what;
    EXPECT_EQ(bytes, expected) << what;
  }
  // The server has dropped the connection, and all that belongs to it, once this has returned.
  void expectEnd(const std::string& what = "") const {
    Bytes bytes(1);
    errno = 0;
    EXPECT_LE(recv(socket_.get(), bytes.data(), 1, 0), 0) << what;
    EXPECT_NE(errno, EAGAIN) << what << " is still connected";
  }
  void leave() const {
    shutdown(socket_.get(), SHUT_WR);
    Bytes bytes(1000);
    while (recv(socket_.get(), bytes.data(), bytes.size(), 0) > 0) continue;
  }

 private:
  static ssize_t ssize(const Bytes& bytes) { return static_cast<ssize_t>(bytes.size()); }
  Descriptor socket_;
};

class Usbip : public testing::Test {
 protected:
  void SetUp() override {
    devices.emplace_back("1-1.2", 2, qm5, ExportedDevice::Options{"QM5", latency});
    devices.emplace_back("1-1.3", 3, other, ExportedDevice::Options{std::nullopt, latency});
    ASSERT_EQ(server.start({"127.0.0.1", 0}), std::nullopt);
  }
  static Bytes record(const std::string& bus_id, std::uint32_t address) {
    return text("/sys/bus/usb/devices/" + bus_id, 256) + text(bus_id, 32) +
           numbers({1, address, 3, 0x0451ACE1, 0x0100FF00, 0x00000101});
  }
  Host plugIn() const {
    Host host(server.port());
    host.send(import("1-1.2"));
    host.expect(numbers({0x01110003, 0}) + record("1-1.2", 2));
    return host;
  }

  std::chrono::milliseconds latency{0};
  FaultyQm5 qm5, other;
  std::deque<ExportedDevice> devices;
  UsbipServer server{devices};
};

TEST_F(Usbip, GivesADeviceToOneHostAtATime) {
  const Host lists(server.port());
  lists.send(numbers({0x01118005, 0}));
  const Bytes interface = numbers({0xFF000000});
  lists.expect(numbers({0x01110005, 0, 2}) + record("1-1.2", 2) + interface + record("1-1.3", 3) +
               interface);
  lists.expectEnd();
  const Host first = plugIn();
  for (const auto& [bus_id, status] : {std::pair{"1-1.2", 2U}, {"1-1.4", 4U}}) {
    const Host refused(server.port());
    refused.send(import(bus_id));
    refused.expect(numbers({0x01110003, status}), bus_id);
    refused.expectEnd(bus_id);
  }
  first.leave();
  plugIn();
}

TEST_F(Usbip, AnswersWhatAKernelAsksAndLeavesTheRestToTheDevice) {
  const Bytes device = {18, 1, 0, 2, 255, 0, 0, 64, 0x51, 4, 0xE1, 0xAC, 0, 1, 0, 1, 0, 1};
  const Bytes all = {9, 2, 18, 0, 1, 1, 0, 128, 50, 9, 4, 0, 0, 0, 255, 0, 0, 0};
  const Bytes begin(all.begin(), all.begin() + 9), done;
  const struct {
    const char* name;
    Bytes setup;
    std::optional<Bytes> answer;  // empty: refused
    Bytes sent = {};
  } rows[] = {
      {"device", {0x80, 6, 0, 1, 0, 0, 64, 0}, device},
      {"qualifier", {0x80, 6, 0, 6, 0, 0, 10, 0}, {}},
      {"begin of the configuration", {0x80, 6, 0, 2, 0, 0, 9, 0}, begin},
      {"configuration", {0x80, 6, 0, 2, 0, 0, 255, 0}, all},
      {"second configuration", {0x80, 6, 1, 2, 0, 0, 9, 0}, {}},
      {"languages", {0x80, 6, 0, 3, 0, 0, 255, 0}, Bytes{4, 3, 9, 4}},
      {"product", {0x80, 6, 1, 3, 9, 4, 255, 0}, Bytes{8, 3, 'Q', 0, 'M', 0, '5', 0}},
      {"maker", {0x80, 6, 2, 3, 9, 4, 255, 0}, {}},
      {"interface too early", {0x01, 11, 0, 0, 0, 0, 0, 0}, {}},
      {"choice of a configuration", {0x00, 9, 1, 0, 0, 0, 0, 0}, done},
      {"choice of none such", {0x00, 9, 2, 0, 0, 0, 0, 0}, {}},
      {"configuration chosen", {0x80, 8, 0, 0, 0, 0, 1, 0}, Bytes{1}},
      {"choice of a setting", {0x01, 11, 0, 0, 0, 0, 0, 0}, done},
      {"setting chosen", {0x81, 10, 0, 0, 0, 0, 1, 0}, Bytes{0}},
      {"status", {0x80, 0, 0, 0, 0, 0, 2, 0}, Bytes{0, 0}},
      {"version", kReadVersion, kVersion},
      {"command", kWriteCommand, done, kSFWi},
      {"poll", {0xC0, 0xFE, 0x1E, 0, 0, 0, 5, 0}, Bytes{4, 0, 0, 0, 0}},
      {"write of an unknown register", {0x40, 0xFD, 0x77, 0, 4, 0, 4, 0}, {}, kSFWi},
      {"unknown register", {0xC0, 0xFE, 0x77, 0, 0, 0, 5, 0}, {}},
  };
  const Host host = plugIn();
  std::uint32_t sequence = 7;
  for (const auto& [name, setup, answer, sent] : rows) {
    host.send(submit(++sequence, setup, sent));
    const Bytes data = answer.value_or(Bytes{});
    host.expect(ended(sequence, answer ? 0 : -EPIPE, answer ? sent.size() + data.size() : 0, data),
                name);
  }
  EXPECT_EQ(qm5.requestCount(), 5U);
}

TEST_F(Usbip, EndsATransferThatIsGivenUpAndTheConnectionOfADeviceThatLeaves) {
  qm5.addFault({.kind = FaultKind::silent, .number = 1});
  qm5.addFault({.kind = FaultKind::stall, .number = 2});
  qm5.addFault({.kind = FaultKind::unplug, .number = 4});
  qm5.addFault({.kind = FaultKind::stall_on, .number = 5});  // until the next power cycle
  const Host host = plugIn();
  host.send(submit(1, kReadVersion) + submit(2, kReadVersion) + unlink(3, 1) + unlink(4, 2));
  host.expect(ended(2, -EPIPE, 0) + unlinked(3, -ECONNRESET) + unlinked(4, 0));
  host.send(submit(5, kReadVersion) + submit(6, kReadVersion) + submit(7, kReadVersion));
  host.expect(ended(5, 0, 9, kVersion));
  host.expectEnd("unplugged by the fault");
  const Host again = plugIn();
  again.send(submit(1, kReadVersion));
  again.expect(ended(1, -EPIPE, 0));
  server.unplug();
  again.expectEnd("unplugged by the server");
  const Host last = plugIn();
  last.send(submit(1, kReadVersion));
  last.expect(ended(1, 0, 9, kVersion));
  EXPECT_EQ(qm5.requestCount(), 6U);
}

class SlowUsbip : public Usbip {
 protected:
  SlowUsbip() { latency = std::chrono::milliseconds(200); }
};
TEST_F(SlowUsbip, KeepsTheDelayOfEachRequest) {
  const auto start = std::chrono::steady_clock::now();
  const Host host = plugIn();
  host.send(submit(1, kReadVersion) + submit(2, kReadVersion) + unlink(3, 1));
  host.expect(unlinked(3, -ECONNRESET) + ended(2, 0, 9, kVersion));
  EXPECT_GE(std::chrono::steady_clock::now() - start, latency);
}

TEST_F(Usbip, OutlivesHostsThatBreakTheProtocolOrLeaveInTheMiddle) {
  const auto descriptors = [] {
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return std::distance(begin(files), end(files));
  };
  const auto before = descriptors();
  const Bytes write = submit(1, kWriteCommand, kSFWi), good = import("1-1.2") + write;
  for (std::size_t kept = 0; kept <= good.size(); ++kept) {
    const Host host(server.port());
    host.send({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(kept)});
    host.leave();
  }
  for (const std::size_t at : {0U, 3U, 11U, 15U, 19U, 24U, 27U, 35U, 40U, 46U}) {
    const Host host = plugIn();
    Bytes odd = write;
    odd[at] = 0x99;
    host.send(odd);
    host.expectEnd("byte " + std::to_string(at));
  }
  for (const Bytes& odd : {numbers({0x01108003, 0}), numbers({0x01118004, 0}), Bytes(70000, 255)}) {
    const Host host(server.port());
    host.send(odd);
    host.expectEnd();
  }
  plugIn().leave();
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace qm5::test
