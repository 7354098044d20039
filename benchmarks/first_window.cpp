// first_window [--mapped] PROGRAM [ARGUMENT...]: how long a program takes from its start to its
// first painted window, and how much memory it has used by then.
//
// It looks on from outside, by the X protocol alone, so that it can compare programs of any
// toolkit. It needs a screen of its own without a window manager, whose root is black: a window
// counts as painted when any pixel of its middle row is another than that. Prints milliseconds,
// kilobytes (the peak of the resident set) and how many shared libraries are loaded, those that the
// program opens by itself too; drops what the program prints, and ends it.
// With --mapped it is content with an unpainted window, for programs that paint only when a
// window manager has given theirs its size.
// Exits with 1 when no window came within 20 s or the program ended before.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "benchmarks/peak_memory.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kPatience{20};
constexpr std::uint32_t kColours = 0xFFFFFF;  // of a pixel's 32 bits

struct Free {
  void operator()(void* reply) const { std::free(reply); }
};
template <typename T>
using Reply = std::unique_ptr<T, Free>;

[[noreturn]] void fail(const std::string& reason) {
  std::fprintf(stderr, "first_window: %s\n", reason.c_str());
  std::exit(1);
}

/// Everything that is drawn on a screen, as events.
class Screen {
 public:
  Screen() : connection_(xcb_connect(nullptr, nullptr)) {
    if (xcb_connection_has_error(connection_) != 0) fail("no display");
    root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &mask);
    const auto* extension = xcb_get_extension_data(connection_, &xcb_damage_id);
    if (extension == nullptr || extension->present == 0) fail("no DAMAGE extension");
    // The extension serves only those who have asked for its version.
    const Reply<xcb_damage_query_version_reply_t> version(xcb_damage_query_version_reply(
        connection_, xcb_damage_query_version(connection_, 1, 1), nullptr));
    damage_ = xcb_generate_id(connection_);
    xcb_damage_create(connection_, damage_, root_, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY);
    xcb_flush(connection_);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Waits for something to happen on the screen, until `deadline`.
  bool wait(Clock::time_point deadline) {
    while (Clock::now() < deadline) {
      bool happened = false;
      while (const auto event = Reply<xcb_generic_event_t>(xcb_poll_for_event(connection_))) {
        note(*event);
        happened = true;
      }
      if (happened) return true;
      pollfd readable{xcb_get_file_descriptor(connection_), POLLIN, 0};
      poll(&readable, 1, 10);  // milliseconds; the program may have ended
      if (readable.revents == 0) return true;
    }
    return false;
  }

  bool isMapped() { return mapped_ != XCB_NONE; }

  /// Whether the window that was mapped last shows anything. One row is enough to tell, and
  /// more would keep the server from serving the program.
  bool isPainted() {
    if (mapped_ == XCB_NONE) return false;
    xcb_damage_subtract(connection_, damage_, XCB_NONE, XCB_NONE);
    const Reply<xcb_get_geometry_reply_t> area(
        xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, mapped_), nullptr));
    if (!area) return false;
    const Reply<xcb_get_image_reply_t> image(xcb_get_image_reply(
        connection_,
        xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, mapped_, 0,
                      static_cast<std::int16_t>(area->height / 2), area->width, 1, kColours),
        nullptr));
    if (!image) return false;
    const std::uint8_t* const bytes = xcb_get_image_data(image.get());
    return std::any_of(bytes, bytes + xcb_get_image_data_length(image.get()),
                       [](std::uint8_t byte) { return byte != 0; });
  }

 private:
  void note(const xcb_generic_event_t& event) {
    if ((event.response_type & 0x7F) != XCB_MAP_NOTIFY) return;
    mapped_ = reinterpret_cast<const xcb_map_notify_event_t&>(event).window;
  }

  xcb_connection_t* const connection_;
  xcb_window_t root_ = XCB_NONE;
  xcb_damage_damage_t damage_ = XCB_NONE;
  xcb_window_t mapped_ = XCB_NONE;
};

/// The moment at which the program has a window that `is_there`; empty when that never happens.
std::optional<Clock::time_point> await(bool (Screen::*is_there)(), Screen& screen, pid_t process) {
  const auto deadline = Clock::now() + kPatience;
  while (screen.wait(deadline)) {
    if ((screen.*is_there)()) return Clock::now();
    if (waitpid(process, nullptr, WNOHANG) == process) fail("the program ended without a window");
  }
  return std::nullopt;
}

// Of those that the process has open now, plug-ins included.
std::size_t sharedLibraries(pid_t process) {
  std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
  std::set<std::string> libraries;
  for (std::string line; std::getline(maps, line);) {
    if (line.find(".so") != line.npos) libraries.insert(line.substr(line.find('/')));
  }
  return libraries.size();
}

}  // namespace

int main(int argc, char** argv) {
  const bool mapped = argc > 1 && std::strcmp(argv[1], "--mapped") == 0;
  char** const command = argv + (mapped ? 2 : 1);
  if (*command == nullptr) fail("usage: first_window [--mapped] PROGRAM [ARGUMENT...]");
  Screen screen;
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  for (const int output : {STDOUT_FILENO, STDERR_FILENO})
    posix_spawn_file_actions_addopen(&quiet, output, "/dev/null", O_WRONLY, 0);
  pid_t process = 0;
  const auto start = Clock::now();
  if (posix_spawnp(&process, *command, &quiet, nullptr, command, environ) != 0)
    fail(std::string(*command) + " can't be started");
  const auto seen = await(mapped ? &Screen::isMapped : &Screen::isPainted, screen, process);
  const long kilobytes = seen ? qm5::peakMemory(std::to_string(process)) : 0;
  const std::size_t libraries = sharedLibraries(process);
  kill(process, SIGKILL);
  waitpid(process, nullptr, 0);
  if (!seen) fail("no window came");
  const auto time = std::chrono::duration<double, std::milli>(*seen - start);
  std::printf("%.1f %ld %zu\n", time.count(), kilobytes, libraries);
}
