// Who handles libusb's events: the thread that makes a request, as long as one request follows
// another, and the monitor's thread otherwise.
//
// A request waits by handling events itself, unless another thread is at it already. Then its
// end has to pass from that thread to this one, which takes longer than everything else that
// the host does for a request.
#pragma once

#include <libusb.h>

#include <atomic>
#include <cstdint>

namespace qm5 {

class EventTurns {
 public:
  /// Set once, before anything else is called.
  void setContext(libusb_context* context) { context_ = context; }

  /// The turn of a request; lives as long as it. Any thread.
  class Request {
   public:
    explicit Request(EventTurns& turns) : turns_(turns) { ++turns_.begun_; }
    ~Request() { ++turns_.ended_; }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

   private:
    EventTurns& turns_;
  };

  /// The turn of the monitor's thread: waits until requests have rested, then handles events or
  /// waits for one, the end of the next request among them. Returns libusb's own result.
  int handleEvents();

 private:
  libusb_context* context_ = nullptr;
  std::atomic<std::uint64_t> begun_ = 0;  // requests
  std::atomic<std::uint64_t> ended_ = 0;
  std::uint64_t begun_before_ = 0;  // as the monitor's thread last saw it
};

}  // namespace qm5
