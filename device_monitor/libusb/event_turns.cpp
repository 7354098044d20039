#include "device_monitor/libusb/event_turns.h"

#include <thread>
#include <utility>

namespace qm5 {
namespace {

// Longer than the host takes from one request to the next; too short for a person to notice that
// an arrival or a removal is handled that much later.
constexpr std::chrono::milliseconds kIdlePollInterval{20};

}  // namespace

// Polled: having the request's thread wake this one would cost every request.
int EventTurns::handleEventsBetweenRequests(std::chrono::milliseconds longest) {
  while (areRequestsHandlingEvents()) std::this_thread::sleep_for(kIdlePollInterval);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(longest);
  const std::chrono::microseconds below_a_second = longest - seconds;
  timeval timeout{seconds.count(), below_a_second.count()};
  return libusb_handle_events_timeout_completed(context_, &timeout, nullptr);
}

// Since the last poll a request was answered, or one has been waiting for its answer all the time.
bool EventTurns::areRequestsHandlingEvents() {
  const std::uint64_t ended = ended_;  // read first: a request ends after it has begun
  const Counts before = std::exchange(last_poll_, {begun_, answered_});
  const bool is_one_waiting = last_poll_.begun != ended && last_poll_.begun == before.begun;
  return is_one_waiting || last_poll_.answered != before.answered;
}

}  // namespace qm5
