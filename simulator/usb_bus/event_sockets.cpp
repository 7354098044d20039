// Preloaded into the programs on the emulated bus, before umockdev's own library: gives each
// process hot-plug sockets of its own.
//
// umockdev sends hot-plug events to sockets that it names after the descriptors of those who
// listen. So a second process whose descriptor has the same number would take the first one's name
// from it.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

// In place of the C library's.
extern "C" int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
  const auto next = reinterpret_cast<decltype(&bind)>(dlsym(RTLD_NEXT, "bind"));
  const char* const folder = std::getenv("UMOCKDEV_DIR");
  if (folder == nullptr || address->sa_family != AF_NETLINK)
    return next(descriptor, address, length);
  char lock_file[PATH_MAX], name[PATH_MAX], own_name[PATH_MAX];
  std::snprintf(lock_file, sizeof lock_file, "%s/naming", folder);
  std::snprintf(name, sizeof name, "%s/event%d", folder, descriptor);
  std::snprintf(own_name, sizeof own_name, "%s/event%d-%d", folder, descriptor, getpid());
  const int lock = open(lock_file, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  flock(lock, LOCK_EX);
  const int result = next(descriptor, address, length);
  std::rename(name, own_name);  // umockdev looks for all names that begin like this
  close(lock);
  return result;
}
