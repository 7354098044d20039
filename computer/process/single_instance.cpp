#include "computer/process/single_instance.h"

#include <cstdlib>

namespace qm5 {

std::string activationToken() {
  for (const char* name : {"XDG_ACTIVATION_TOKEN", "DESKTOP_STARTUP_ID"}) {
    if (const char* const token = std::getenv(name)) return token;
  }
  return {};
}

}  // namespace qm5

#ifdef __linux__

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "computer/process/process_state.h"
#include "platform/fatal.h"
#include "platform/thread.h"

namespace qm5 {
namespace {

using std::chrono::milliseconds;
using Time = std::chrono::steady_clock::time_point;

constexpr milliseconds kAnswerTimeout{2'000};
constexpr milliseconds kEndTimeout{10'000};
constexpr milliseconds kUsualAnswerTime{200};  // of an owner that has not been stopped
constexpr milliseconds kReleaseTime{200};  // in which an owner that is ending gives the lock back
constexpr milliseconds kPollInterval{10};
constexpr std::size_t kLongestMessage = 4096;

// The owner of the bus listens on the first of these names that is free. A program that occupies
// one name keeps nobody out: the claim itself is the lock.
constexpr int kNames = 4;

/// An abstract socket's address: the kernel frees the name when its owner ends. It is made of
/// device and inode of the bus's folder, so an emulated bus does not block the real one.
struct Address {
  sockaddr_un socket{};
  socklen_t length = 0;
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&socket); }
};

Address addressOf(const Descriptor& bus, int number) {
  struct stat folder {};
  ::fstat(bus.get(), &folder);
  std::string name(1, '\0');
  name.append("qm5-updater-").append(std::to_string(folder.st_dev));
  name.append("-").append(std::to_string(folder.st_ino));
  name.append("-").append(std::to_string(number));
  Address address;
  address.socket.sun_family = AF_UNIX;
  std::copy(name.begin(), name.end(), address.socket.sun_path);
  address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  return address;
}

Descriptor openBus(const char* bus) {
  // A computer without a USB bus has the folder around it.
  for (const char* folder : {bus, "/sys/bus", "/"}) {
    Descriptor opened(::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (opened.isOpen() || errno != ENOENT) return opened;
  }
  return Descriptor();
}

/// Carries whole messages.
Descriptor newSocket(int flags) {
  return Descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | flags, 0));
}

Descriptor listenForLaterStarts(const Descriptor& bus) {
  for (int number = 0; number < kNames; ++number) {
    Descriptor listening = newSocket(0);
    const Address address = addressOf(bus, number);
    if (::bind(listening.get(), address.get(), address.length) == 0 &&
        ::listen(listening.get(), SOMAXCONN) == 0)
      return listening;
  }
  return Descriptor();
}

/// Who made the other end of a connection.
ucred peerOf(const Descriptor& connection) {
  ucred peer{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t length = sizeof peer;
  ::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length);
  return peer;
}

// What an owner whose display has gone answers: no name of a display has a line of its own.
constexpr std::string_view kNoWindows = "\n\nno windows\n";

/// The displays of this process, one per line: Wayland's and X's. Either may be empty.
std::string displays() {
  std::string names;
  for (const char* variable : {"WAYLAND_DISPLAY", "DISPLAY"}) {
    if (const char* const name = std::getenv(variable)) names.append(name);
    names.push_back('\n');
  }
  return names;
}

struct Displays {
  std::string wayland;
  std::string x;
};

Displays displaysFrom(const std::string& lines) {
  const std::size_t first = std::min(lines.find('\n'), lines.size());
  std::string x = lines.substr(std::min(first + 1, lines.size()));
  x.resize(std::min(x.find('\n'), x.size()));
  return {lines.substr(0, first), x};
}

BusInUse inUseOn(const std::string& displays_of_owner) {
  if (displays_of_owner == kNoWindows) return {BusInUse::By::thisUserWithoutWindows, {}};
  const Displays owner = displaysFrom(displays_of_owner);
  const Displays here = displaysFrom(displays());
  const bool same = (owner.wayland == here.wayland && !owner.wayland.empty()) ||
                    (owner.x == here.x && !owner.x.empty()) || displays_of_owner == displays();
  if (same) return {BusInUse::By::thisUser, {}};
  const std::string& name = owner.wayland.empty() ? owner.x : owner.wayland;
  return {BusInUse::By::thisUserElsewhere, name};
}

/// A start's side of the talk with the owner of the bus.
class OwnerContact {
 public:
  OwnerContact(const Descriptor& bus, std::string_view activation_token)
      : bus_(bus), token_(activation_token.substr(0, kLongestMessage)) {}

  /// Hands the token to whoever listens, once, and looks for an answer without waiting.
  std::optional<BusInUse> answer() {
    for (int number = 0; number < kNames; ++number) {
      Descriptor& connection = connections_[static_cast<std::size_t>(number)];
      if (!connection.isOpen()) connection = connect(number);
      if (!connection.isOpen()) continue;
      std::array<char, kLongestMessage> message{};
      const ssize_t size = ::recv(connection.get(), message.data(), message.size(), MSG_DONTWAIT);
      if (size > 0 && isOwner(connection))
        return read(connection, {message.data(), static_cast<std::size_t>(size)});
      // An end without an answer: of a process that is dying, for instance.
      if (size == 0 || (size < 0 && errno != EAGAIN)) connection = Descriptor();
    }
    return std::nullopt;
  }

  /// The owner is this user's and has been stopped: the token waits for it to go on.
  bool waitsForStoppedOwner() const {
    const std::optional<pid_t> owner = lockHolder(bus_.get());
    if (!owner || !isStopped(*owner) || isDying(*owner)) return false;
    return std::any_of(connections_.begin(), connections_.end(), [owner](const auto& each) {
      if (!each.isOpen()) return false;
      const ucred peer = peerOf(each);
      return peer.pid == *owner && peer.uid == ::getuid();
    });
  }

 private:
  // Any program can listen on these names. Both are 0 for an owner that this process can't see, in
  // a container of its own.
  bool isOwner(const Descriptor& connection) const {
    return peerOf(connection).pid == lockHolder(bus_.get()).value_or(0);
  }

  // Neither call waits: the kernel keeps the message for the owner.
  Descriptor connect(int number) const {
    Descriptor connection = newSocket(SOCK_NONBLOCK);
    const Address address = addressOf(bus_, number);
    if (::connect(connection.get(), address.get(), address.length) != 0) return Descriptor();
    // With a first byte: an empty message could not be told from an end.
    ::send(connection.get(), ("+" + token_).data(), token_.size() + 1, MSG_NOSIGNAL);
    return connection;
  }

  static BusInUse read(const Descriptor& connection, const std::string& message) {
    if (peerOf(connection).uid != ::getuid()) return {BusInUse::By::anotherUser, {}};
    return inUseOn(message);
  }

  const Descriptor& bus_;
  const std::string token_;
  std::array<Descriptor, kNames> connections_;
};

/// Who has the bus, when its owner has not answered for so long; empty while it may yet answer,
/// until `timeout`, or is ending.
std::optional<BusInUse> identifySilentOwner(const Descriptor& bus, milliseconds silence,
                                            milliseconds timeout) {
  if (silence < timeout) return std::nullopt;
  const std::optional<pid_t> holder = lockHolder(bus.get());
  if (holder && isDying(*holder) && silence < kEndTimeout) return std::nullopt;
  return BusInUse{BusInUse::By::otherProgram, holder ? describeProcess(*holder) : "A program"};
}

Descriptor requireBus(const char* folder) {
  Descriptor bus = openBus(folder);
  if (!bus.isOpen())
    cannotStart(std::string("the USB bus can't be claimed: ").append(std::strerror(errno)));
  return bus;
}

bool isSameFolder(int one, int other) {
  struct stat first {
  }, second{};
  return ::fstat(one, &first) == 0 && ::fstat(other, &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

/// Locks the bus; where another process has it, tries again until `identify` says who that is.
/// `identify` is called with the time since the first try.
std::optional<BusInUse> lock(
    const Descriptor& bus,
    const std::function<std::optional<BusInUse>(milliseconds since_first_try)>& identify) {
  const Time began = std::chrono::steady_clock::now();
  while (::flock(bus.get(), LOCK_EX | LOCK_NB) != 0) {
    const auto tried = std::chrono::steady_clock::now() - began;
    auto owner = identify(std::chrono::duration_cast<milliseconds>(tried));
    // The owner may have ended while it was looked for.
    if (owner && ::flock(bus.get(), LOCK_EX | LOCK_NB) != 0) return owner;
    if (owner) break;
    std::this_thread::sleep_for(kPollInterval);
  }
  return std::nullopt;
}

Descriptor nextConnection(const Descriptor& listening) {
  while (true) {
    Descriptor connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection.isOpen()) return connection;
    std::this_thread::sleep_for(kPollInterval);
  }
}

// The owner's side: the token of a start of this user; empty when it is another user's.
std::optional<std::string> receiveStart(const Descriptor& connection,
                                        const std::string& answer_to_same_user) {
  // A start sends at once. A program that does not must not keep the others waiting.
  const timeval timeout{1, 0};
  ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  std::array<char, kLongestMessage + 1> message{};
  const ssize_t size = ::recv(connection.get(), message.data(), message.size(), 0);
  if (size <= 0) return std::nullopt;
  const bool same_user = peerOf(connection).uid == ::getuid();
  const std::string answer = same_user ? answer_to_same_user : "\n";
  ::send(connection.get(), answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (!same_user) return std::nullopt;
  return std::string(message.data() + 1, static_cast<std::size_t>(size) - 1);
}

}  // namespace

std::variant<BusClaim, BusInUse> claimBus(std::string_view activation_token, const char* folder) {
  Descriptor bus = requireBus(folder);
  OwnerContact contact(bus, activation_token);
  const auto owner = lock(bus, [&](milliseconds silence) -> std::optional<BusInUse> {
    if (auto answer = contact.answer()) return answer;
    if (silence >= kUsualAnswerTime && contact.waitsForStoppedOwner())
      return BusInUse{BusInUse::By::thisUser, {}};
    return identifySilentOwner(bus, silence, kAnswerTimeout);
  });
  if (owner) return *owner;
  Descriptor later_starts = listenForLaterStarts(bus);
  return BusClaim(std::move(bus), std::move(later_starts));
}

std::variant<BusClaim, BusInUse> claimBusQuietly(int inherited, const char* folder) {
  Descriptor bus = requireBus(folder);
  // The lock belongs to what was opened, not to the process: this one has it too then.
  if (isSameFolder(inherited, bus.get())) bus = Descriptor(inherited);
  const auto owner = lock(bus, [&](milliseconds since_first_try) {
    return identifySilentOwner(bus, since_first_try, kReleaseTime);
  });
  if (owner) return *owner;
  return BusClaim(std::move(bus), Descriptor());
}

void BusClaim::followLaterStarts(std::function<void(const std::string&)> started) {
  if (!later_starts_.isOpen()) return;
  const auto listening = std::make_shared<Descriptor>(std::move(later_starts_));
  Thread thread("LaterStarts", [listening, started = std::move(started), names = displays(),
                                has_display = has_display_] {
    while (true) {
      const Descriptor connection = nextConnection(*listening);
      const std::string answer = *has_display ? names : std::string(kNoWindows);
      if (const auto token = receiveStart(connection, answer)) started(*token);
    }
  });
  if (!thread.start()) cannotStart("there is no thread left to wait for later starts");
}

}  // namespace qm5

#else

namespace qm5 {

std::variant<BusClaim, BusInUse> claimBus(std::string_view, const char*) {
  return BusClaim(Descriptor(), Descriptor());
}

std::variant<BusClaim, BusInUse> claimBusQuietly(int, const char*) {
  return BusClaim(Descriptor(), Descriptor());
}

void BusClaim::followLaterStarts(std::function<void(const std::string&)>) {}

}  // namespace qm5

#endif
