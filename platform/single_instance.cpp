#include "platform/single_instance.h"

#ifdef __linux__

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <optional>
#include <thread>
#include <utility>

#include "platform/thread.h"

namespace qm5 {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{1000};
constexpr milliseconds kPause{10};
constexpr std::size_t kLongestToken = 4096;

class Socket {
 public:
  explicit Socket(int descriptor) : descriptor_(descriptor) {}
  Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Socket& operator=(Socket&&) = delete;
  ~Socket() {
    if (descriptor_ >= 0) ::close(descriptor_);
  }
  int descriptor() const { return descriptor_; }
  int release() { return std::exchange(descriptor_, -1); }

 private:
  int descriptor_;
};

// A name in the kernel's own space, which goes with the process that has it. A bus is told
// by its folder, so that whoever works on another one, an emulated one, is not in the way.
struct Address {
  sockaddr_un socket{};
  socklen_t length = 0;
};

Address addressOfBus() {
  struct stat bus {};
  ::stat("/sys/bus/usb", &bus);  // a machine without one has all zeros, which is a name too
  std::string name(1, '\0');
  name.append("qm5-updater-").append(std::to_string(bus.st_dev));
  name.append("-").append(std::to_string(bus.st_ino));
  Address address;
  address.socket.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.socket.sun_path);
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  return address;
}

// One that carries whole messages.
Socket newSocket(int flags) {
  return Socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

bool isOfThisUser(const Socket& connection) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return ::getsockopt(connection.descriptor(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
         peer.uid == ::getuid();
}

int listening = -1;

bool claim(const Address& address) {
  Socket made = newSocket(0);
  const auto* name = reinterpret_cast<const sockaddr*>(&address.socket);
  if (::bind(made.descriptor(), name, address.length) != 0) return false;
  if (::listen(made.descriptor(), SOMAXCONN) != 0) return false;
  listening = made.release();
  return true;
}

// Empty when there is nobody to tell: he is not listening yet, or has just ended.
std::optional<Start> tell(const Address& address, std::string_view activation_token) {
  // Neither call waits, as he may have been stopped: the kernel keeps the message for him.
  const Socket connection = newSocket(SOCK_NONBLOCK);
  const auto* name = reinterpret_cast<const sockaddr*>(&address.socket);
  if (::connect(connection.descriptor(), name, address.length) != 0) return std::nullopt;
  if (!isOfThisUser(connection)) return Start::refused;
  const std::string_view token = activation_token.substr(0, kLongestToken);
  ::send(connection.descriptor(), token.data(), token.size(), MSG_NOSIGNAL);
  return Start::handedOver;
}

Socket nextStart() {
  while (true) {
    Socket connection(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.descriptor() >= 0) return connection;
    std::this_thread::sleep_for(kPause);
  }
}

std::string tokenFrom(const Socket& connection) {
  // Who connects sends at once. Who does not shall not keep the others waiting.
  const timeval patience{1, 0};
  ::setsockopt(connection.descriptor(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  std::array<char, kLongestToken> token{};
  const ssize_t size = ::recv(connection.descriptor(), token.data(), token.size(), 0);
  return std::string(token.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
}

}  // namespace

Start claimBus(std::string_view activation_token) {
  const Address address = addressOfBus();
  const auto end = std::chrono::steady_clock::now() + kPatience;
  do {
    if (claim(address)) return Start::onlyOne;
    if (const auto told = tell(address, activation_token)) return *told;
    std::this_thread::sleep_for(kPause);
  } while (std::chrono::steady_clock::now() < end);
  return Start::refused;
}

void followLaterStarts(std::function<void(const std::string& activation_token)> told) {
  Thread("LaterStarts", [told = std::move(told)] {
    while (true) {
      const Socket start = nextStart();
      if (isOfThisUser(start)) told(tokenFrom(start));
    }
  }).start();
}

}  // namespace qm5

#else

namespace qm5 {

Start claimBus(std::string_view) {
  return Start::onlyOne;
}

void followLaterStarts(std::function<void(const std::string&)>) {}

}  // namespace qm5

#endif
