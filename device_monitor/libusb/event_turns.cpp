#include "device_monitor/libusb/event_turns.h"

#include <chrono>
#include <thread>

namespace qm5 {
namespace {

// Longer than the host takes from one request to the next; much shorter than it takes a person
// to miss what nobody has handled meanwhile.
constexpr std::chrono::milliseconds kRest{20};

}  // namespace

int EventTurns::handleEvents() {
  // Looked at from time to time only: to be woken would cost every request.
  for (std::uint64_t begun = begun_; begun != begun_before_ || begun != ended_; begun = begun_) {
    begun_before_ = begun;
    std::this_thread::sleep_for(kRest);
  }
  return libusb_handle_events(context_);
}

}  // namespace qm5
