#include "computer/process/start_conditions.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/descriptor.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

// What the program has taken by the time its window stands and an update runs, with some in
// reserve: 24 descriptors and 15 threads on X, with logind, the session manager and a notification.
constexpr std::size_t kDescriptors = 32;
constexpr std::size_t kThreads = 16;
constexpr std::size_t kMemory = std::size_t{96} << 20;  // bytes, besides the threads' stacks

// The variable in which Qt for Wayland looks for the token.
constexpr const char* kActivationToken = "XDG_ACTIVATION_TOKEN";

// What an alert takes, and what an update takes until it has ended.
constexpr std::size_t kReserve = std::size_t{4} << 20;  // bytes
std::atomic<void*> reserve = nullptr;

// Called where `new` finds no memory; `new` tries again when it returns.
void useReserve() {
  void* const memory = reserve.exchange(nullptr);
  if (memory == nullptr) throw std::bad_alloc();
  std::free(memory);
}

void requireDescriptors() {
  std::vector<Descriptor> opened;
  while (opened.size() < kDescriptors) {
    opened.emplace_back(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    if (!opened.back().isOpen())
      cannotStart(std::string("no more files can be opened: ").append(std::strerror(errno)));
  }
}

void requireMemory() {
  const std::unique_ptr<void, decltype(&std::free)> memory(std::malloc(kMemory), &std::free);
  reserve = std::malloc(kReserve);
  if (!memory || reserve == nullptr) cannotStart("there is not enough memory");
  std::set_new_handler(useReserve);
}

// Has as many threads at the same time as the program will have. They have ended when this returns:
// a signal that is blocked later would still end the process through one of them.
void requireThreads() {
  std::promise<void> open;
  const std::shared_future<void> gate = open.get_future().share();
  std::vector<std::thread> threads;
  try {
    while (threads.size() < kThreads) threads.emplace_back([gate] { gate.wait(); });
  } catch (const std::exception&) {
    cannotStart("there are not enough threads, or no memory for them");
  }
  open.set_value();
  for (std::thread& thread : threads) thread.join();
}

}  // namespace

void openStandardStreams() {
  std::vector<int> closed;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(stream, F_GETFD) != -1 || errno != EBADF) continue;
    closed.push_back(stream);
    // The root folder, which takes no lines, keeps the place: the null device may be missing, and
    // on an emulated bus it takes a second descriptor, a connection that lines must not go into.
    ::open("/", O_RDONLY | O_DIRECTORY);
  }
  if (closed.empty()) return;
  const Descriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int stream : closed) ::dup2(null.get(), stream);
}

void ignoreWriteSignals() {
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

void setEnvironment() {
  // A Wayland compositor that has gone may come back. Qt 6.8 waits for that where it is told to;
  // other versions take no notice.
  ::setenv("QT_WAYLAND_RECONNECT", "1", 1);
  if (std::getenv(kActivationToken) != nullptr) return;
  ::setenv(kActivationToken, "", 1);
  ::unsetenv(kActivationToken);
}

void requireStartResources() {
  requireDescriptors();
  requireMemory();
  requireThreads();
}

}  // namespace qm5
