// paced_update BLOCKS MICROSECONDS: the whole program with its windows, and a device in process
// that takes that long for each request, right behind the USB port. Behind every other block, the
// same thread sends the same requests again in a bare loop. Writes one line of JSON on standard
// error:
//   seconds         of the update, bare loops included
//   ratio           of a block's time, from the end of the one before, to that of its bare loop:
//                   the median over those blocks
//   boundary        microseconds from the end of one block's last request to the beginning of the
//                   next block's first one: the median where no bare loop is in between
//   within          the same between two writes of one block
//   wakeups         how often the main thread's event loop went to sleep and was woken per second
//                   of the update
//   percents        how many whole percents the bar has been painted at
#undef _FORTIFY_SOURCE  // it has a poll() of its own inline, which is replaced below
#include <poll.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <QProgressBar>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "benchmarks/watched_application.h"
#include "platform/system_log.h"
#include "tests/support/ready_qm5.h"

namespace qm5 {
namespace {

std::atomic<long> sleeps_of_event_loop = 0;

using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Figures {
  double seconds;
  double ratio;
  double boundary;  // microseconds
  double within;    // microseconds
};

// A device whose requests take the time that a bus takes, for which the thread sleeps as it does
// in the kernel. A block begins with a write of data and ends with the reading of its reply.
class PacedQm5 final : public IOUSBDeviceStruct942 {
 public:
  PacedQm5(std::size_t blocks, std::chrono::microseconds latency) : latency_(latency) {
    for (auto* values : {&ratios_, &boundaries_, &within_}) values->reserve(8 * blocks);
  }

  void attach() {
    NotificationCenter::defaultCenter().post(
        {USBDeviceConnected,
         Dictionary{{"device", USBDevice{2, 0x0451, 0xACE1, "QM5", &device_, nullptr}}}});
  }
  /// Of all requests so far. The update job's thread, as for the requests.
  Figures figures() const {
    return {.seconds = secondsBetween(first_begun_, last_ended_),
            .ratio = median(ratios_),
            .boundary = median(boundaries_),
            .within = median(within_)};
  }

  IOReturn USBDeviceOpen() override { return kIOReturnSuccess; }
  IOReturn GetDeviceVendor(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn GetDeviceProduct(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override {
    const auto begun = Clock::now();
    const bool is_data = request.wValue == 0x1F;
    const bool is_read = request.bmRequestType >= 0x80;
    if (first_begun_ == Clock::time_point()) first_begun_ = begun;
    if (is_data && !is_read && (!block_.empty() || is_next_paired_)) {
      auto& gaps = block_.empty() ? boundaries_ : within_;
      gaps.push_back(1e6 * secondsBetween(last_ended_, begun));
    }
    const IOReturn result = serve(request);
    block_.push_back(request);
    if (is_data && is_read) endBlock();
    last_ended_ = Clock::now();
    return result;
  }

 private:
  IOReturn serve(IOUSBDevRequest& request) {
    const auto end = Clock::now() + latency_;
    const IOReturn result = ready_.DeviceRequest(request);
    if (latency_.count() == 0) return result;
    const auto since_epoch = end.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(since_epoch);
    const timespec until{seconds.count(), (since_epoch - seconds).count()};
    // By default the kernel lets a thread sleep up to 50 us longer. Set by the thread itself.
    thread_local const int precise = prctl(PR_SET_TIMERSLACK, 1UL);
    (void)precise;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    return result;
  }

  void endBlock() {
    const auto ended = Clock::now();
    if (is_next_paired_) {
      repeatBlock();
      const double bare = secondsBetween(ended, Clock::now());
      ratios_.push_back(secondsBetween(block_ended_, ended) / bare);
    }
    is_next_paired_ = !is_next_paired_;
    block_.clear();
    block_ended_ = Clock::now();
  }
  void repeatBlock() {
    std::array<std::uint8_t, 4096> data{};
    for (IOUSBDevRequest& each : block_) {
      each.pData = data.data();
      serve(each);
    }
  }

  const std::chrono::microseconds latency_;
  ReadyQm5 ready_;
  IOUSBDeviceStruct942* device_ = this;
  // The job's thread, until the update has ended.
  Clock::time_point first_begun_;
  Clock::time_point last_ended_;
  Clock::time_point block_ended_;       // the last one, with its bare loop
  bool is_next_paired_ = false;         // a bare loop is going to follow the block that begins
  std::vector<IOUSBDevRequest> block_;  // its requests so far
  std::vector<double> ratios_;
  std::vector<double> boundaries_;
  std::vector<double> within_;
};

// How many whole percents the bar has been painted at.
class PaintedPercents : public QObject {
 public:
  PaintedPercents() { bar_.installEventFilter(this); }
  std::size_t count() const { return percents_.size(); }

 protected:
  bool eventFilter(QObject*, QEvent* event) override {
    if (event->type() == QEvent::Paint) percents_.insert(100 * bar_.value() / bar_.maximum());
    return false;
  }

 private:
  QProgressBar& bar_ = *qobject_cast<QProgressBar*>(findWidget("progressBar"));
  std::set<int> percents_;
};

class PacedUpdate final : public WatchedApplication {
 public:
  PacedUpdate(std::size_t blocks, PacedQm5& device) : WatchedApplication(blocks), device_(device) {}

  /// The update has ended; called on its thread.
  void measure() {
    figures_ = device_.figures();
    wakeups_ = static_cast<double>(sleeps_of_event_loop) / figures_.seconds;
  }

 protected:
  void updateBegan() override {
    sleeps_of_event_loop = 0;
    bar_ = std::make_unique<PaintedPercents>();
  }
  void updateEnded() override {
    std::fprintf(stderr,
                 "{\"seconds\": %.3f, \"ratio\": %.5f, \"boundary\": %.2f, \"within\": %.2f, "
                 "\"wakeups\": %.1f, \"percents\": %zu}\n",
                 figures_.seconds, figures_.ratio, figures_.boundary, figures_.within, wakeups_,
                 bar_->count());
  }

 private:
  PacedQm5& device_;
  std::unique_ptr<PaintedPercents> bar_;
  Figures figures_{};
  double wakeups_ = 0;
};

}  // namespace
}  // namespace qm5

// All libraries find this function in place of the C library's. An event loop that has work left
// asks with a time-out of 0 what else there is; with any other one, it sleeps.
extern "C" int poll(pollfd* descriptors, nfds_t count, int milliseconds) {
  if (milliseconds != 0 && gettid() == getpid()) ++qm5::sleeps_of_event_loop;
  const timespec timeout{milliseconds / 1000, milliseconds % 1000 * 1'000'000L};
  return ppoll(descriptors, count, milliseconds < 0 ? nullptr : &timeout, nullptr);
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::size_t blocks = std::strtoul(argv[1], nullptr, 10);
  new qm5::ReadyLink;
  auto* const device = new qm5::PacedQm5(blocks, std::chrono::microseconds(std::atol(argv[2])));
  device->attach();
  auto* const application = new qm5::PacedUpdate(blocks, *device);
  qm5::setSystemLog([application](std::string_view line) {
    if (line == "SWFs completed SUCCESSFULLY") application->measure();
  });
  return application->run(argc, argv);
}
