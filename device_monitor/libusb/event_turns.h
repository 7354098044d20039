// Which thread handles libusb's events: the one that makes requests, as long as one request
// follows another, and the monitor's thread otherwise.
//
// A request waits for its end by handling events itself. If another thread held libusb's event
// lock, that thread would get the request's end and have to wake the waiting one. That costs 0.08
// ms per request (the median of 25 pairs of 400 requests, two cores, real-time priority; half of
// the pairs between 0.05 and 0.13), where a fast bus takes 0.15 ms for all of it. So the monitor's
// thread stays out of libusb while requests complete.
#pragma once

#include <libusb.h>

#include <atomic>
#include <chrono>
#include <cstdint>

namespace qm5 {

class EventTurns {
 public:
  /// Set once, before anything else is called.
  void setContext(libusb_context* context) { context_ = context; }

  /// Lives from just before a request is submitted until it has ended. Any thread.
  class RequestScope {
   public:
    explicit RequestScope(EventTurns& turns) : turns_(turns) { ++turns_.begun_; }
    ~RequestScope() { ++turns_.ended_; }
    RequestScope(const RequestScope&) = delete;
    RequestScope& operator=(const RequestScope&) = delete;

    /// The device has answered, so this thread has handled events. A request that is refused at
    /// submission has handled none, and must not keep the monitor's thread from it.
    void answered() { ++turns_.answered_; }

   private:
    EventTurns& turns_;
  };

  /// The monitor's thread: waits until requests pause, then handles the events that are there or,
  /// when there are none, waits for one. The end of a later request is such an event too.
  /// Waits no longer than that for one. Returns libusb's own result.
  int handleEventsBetweenRequests(std::chrono::milliseconds longest);
  /// Has that wait end at once, or the next one. Any thread.
  void interrupt() { libusb_interrupt_event_handler(context_); }

 private:
  struct Counts {
    std::uint64_t begun = 0;
    std::uint64_t answered = 0;
  };

  bool areRequestsHandlingEvents();

  libusb_context* context_ = nullptr;
  std::atomic<std::uint64_t> begun_ = 0;  // requests
  std::atomic<std::uint64_t> answered_ = 0;
  std::atomic<std::uint64_t> ended_ = 0;
  Counts last_poll_;  // the monitor's thread
};

}  // namespace qm5
