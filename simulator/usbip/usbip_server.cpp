#include "simulator/usbip/usbip_server.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <utility>

namespace qm5 {
namespace {

using Clock = UsbipConnection::Clock;
using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Further hosts wait: the process must not run out of descriptors.
constexpr std::size_t kMostConnections = 100;
constexpr std::int64_t kLongestWait = 1'000'000;  // milliseconds; poll() counts them in an int

void setOption(const Descriptor& socket, int level, int option) {
  const int on = 1;
  setsockopt(socket.get(), level, option, &on, sizeof on);
}

/// A socket that listens there; without one, errno says why.
Descriptor listenAt(const addrinfo& address) {
  Descriptor made(socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made.isOpen()) return made;
  setOption(made, SOL_SOCKET, SO_REUSEADDR);
  if (address.ai_family == AF_INET6) setOption(made, IPPROTO_IPV6, IPV6_V6ONLY);
  const bool listens = bind(made.get(), address.ai_addr, address.ai_addrlen) == 0 &&
                       ::listen(made.get(), SOMAXCONN) == 0;
  return listens ? std::move(made) : Descriptor();
}

/// Whether this computer just lacks one of the two versions of the Internet protocol.
bool isLackOfFamily(int error) {
  return error == EAFNOSUPPORT || error == EADDRNOTAVAIL;
}

std::uint16_t portOf(const Descriptor& listener) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size);
  sockaddr_in in{};  // IPv6 has the port at the same place
  std::memcpy(&in, &address, sizeof in);
  return ntohs(in.sin_port);
}

}  // namespace

UsbipServer::~UsbipServer() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  wake();
  thread_.join();
}

std::optional<std::string> UsbipServer::start(const UsbipAddress& address) {
  if (auto problem = listen(address)) return problem;
  wake_up_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!wake_up_.isOpen()) return std::strerror(errno);
  thread_ = std::thread([this] { serve(); });
  return std::nullopt;
}

std::optional<std::string> UsbipServer::listen(const UsbipAddress& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const std::string port = std::to_string(address.port);
  const int error =
      getaddrinfo(address.host ? address.host->c_str() : nullptr, port.c_str(), &hints, &found);
  if (error != 0) return gai_strerror(error);
  const AddressList addresses(found, freeaddrinfo);
  int lacking = 0;
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    Descriptor listener = listenAt(*each);
    if (!listener.isOpen() && !isLackOfFamily(lacking = errno)) return std::strerror(lacking);
    if (listener.isOpen()) listeners_.push_back(std::move(listener));
  }
  if (listeners_.empty()) return std::strerror(lacking);
  port_ = portOf(listeners_.front());
  return std::nullopt;
}

void UsbipServer::unplug() {
  unplugging_ = true;
  wake();
}

void UsbipServer::wake() const {
  eventfd_write(wake_up_.get(), 1);
}

void UsbipServer::serve() {
  while (!stopping_) {
    waitForEvents();
    for (const auto& each : connections_) each->proceed();
    const bool unplugs = unplugging_.exchange(false);
    std::erase_if(connections_, [&](const auto& each) {
      return each->hasEnded() || (unplugs && each->hasDevice());
    });
    acceptConnections();
  }
  connections_.clear();
}

void UsbipServer::waitForEvents() {
  std::vector<pollfd> watched = {{wake_up_.get(), POLLIN, 0}};
  for (const auto& each : connections_) watched.push_back({each->descriptor(), each->awaited(), 0});
  if (connections_.size() < kMostConnections) {
    for (const Descriptor& each : listeners_) watched.push_back({each.get(), POLLIN, 0});
  }
  poll(watched.data(), watched.size(), timeLeft());
  eventfd_t count = 0;
  eventfd_read(wake_up_.get(), &count);
}

/// Until the next transfer ends, in the milliseconds of poll().
int UsbipServer::timeLeft() const {
  std::optional<Clock::time_point> next;
  for (const auto& each : connections_) {
    if (const auto end = each->nextEnd()) next = std::min(next.value_or(*end), *end);
  }
  if (!next) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - Clock::now());
  return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, kLongestWait));
}

void UsbipServer::acceptConnections() {
  for (const Descriptor& each : listeners_) {
    if (connections_.size() >= kMostConnections) return;
    Descriptor made(accept4(each.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!made.isOpen()) continue;
    setOption(made, IPPROTO_TCP, TCP_NODELAY);
    setOption(made, SOL_SOCKET, SO_KEEPALIVE);  // a host that is switched off gives its device back
    connections_.push_back(std::make_unique<UsbipConnection>(std::move(made), devices_));
  }
}

}  // namespace qm5
