// paced_update BLOCKS MICROSECONDS: the whole program with its windows, and a device in process
// that takes that long for each request, right behind the USB port. Behind the update, the same
// thread sends the same requests again in a bare loop. Writes one line of JSON on standard error:
//   update, bare    seconds from the first request's beginning to the last one's end
//   boundary        microseconds from the end of one block's last request to the beginning of the
//                   next block's first one: the median over all blocks
//   within          the same between two writes of one block
//   wakeups         how often the main thread's event loop was woken per second of the update
//   percents        how many whole percents the bar has been painted at
#include <sys/prctl.h>

#include <QAbstractEventDispatcher>
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

using Clock = std::chrono::steady_clock;

double secondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

// A device whose requests take the time that a bus takes, for which the thread sleeps as it does
// in the kernel. It notes them, with the times of both ends.
class PacedQm5 final : public IOUSBDeviceStruct942 {
 public:
  struct Request {
    IOUSBDevRequest fields;
    Clock::time_point begun;
    Clock::time_point ended;
  };

  PacedQm5(std::size_t blocks, std::chrono::microseconds latency) : latency_(latency) {
    requests_.reserve(16 * blocks + 10000);
  }

  void attach() {
    NotificationCenter::defaultCenter().post(
        {USBDeviceConnected,
         Dictionary{{"device", USBDevice{2, 0x0451, 0xACE1, "QM5", &device_, nullptr}}}});
  }
  const std::vector<Request>& requests() const { return requests_; }

  /// Sends all requests so far once more; returns the seconds that it takes.
  double repeatAll() {
    std::array<std::uint8_t, 4096> data{};
    const auto begin = Clock::now();
    for (Request& each : requests_) {
      each.fields.pData = data.data();
      serve(each.fields);
    }
    return secondsBetween(begin, Clock::now());
  }

  IOReturn USBDeviceOpen() override { return kIOReturnSuccess; }
  IOReturn GetDeviceVendor(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn GetDeviceProduct(std::uint16_t&) override { return kIOReturnSuccess; }
  IOReturn DeviceRequest(IOUSBDevRequest& request) override {
    const auto begun = Clock::now();
    const IOReturn result = serve(request);
    requests_.push_back({request, begun, Clock::now()});
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

  const std::chrono::microseconds latency_;
  ReadyQm5 ready_;
  IOUSBDeviceStruct942* device_ = this;
  std::vector<Request> requests_;  // the job's thread, until the update has ended
};

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Gaps {
  std::vector<double> between_blocks;  // microseconds
  std::vector<double> within_a_block;
};

// A block ends with the reading of its reply, and the next one begins with a write of data.
Gaps gapsOf(const std::vector<PacedQm5::Request>& requests) {
  Gaps gaps;
  for (std::size_t i = 1; i < requests.size(); ++i) {
    const auto& [before, begun, ended] = requests[i - 1];
    const auto& now = requests[i];
    if (before.wValue != 0x1F || now.fields.wValue != 0x1F) continue;
    auto& kind = before.bmRequestType >= 0x80 ? gaps.between_blocks : gaps.within_a_block;
    kind.push_back(1e6 * secondsBetween(ended, now.begun));
  }
  return gaps;
}

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
  void repeat() {
    const auto& requests = device_.requests();
    update_ = secondsBetween(requests.front().begun, requests.back().ended);
    wakeups_ = static_cast<double>(waits_.exchange(0)) / update_;
    gaps_ = gapsOf(requests);
    bare_ = device_.repeatAll();
  }

 protected:
  void updateBegan() override {
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake,
                     [this] { ++waits_; });
    bar_ = std::make_unique<PaintedPercents>();
  }
  void updateEnded() override {
    std::fprintf(stderr,
                 "{\"update\": %.6f, \"bare\": %.6f, \"boundary\": %.2f, \"within\": %.2f, "
                 "\"wakeups\": %.1f, \"percents\": %zu}\n",
                 update_, bare_, median(gaps_.between_blocks), median(gaps_.within_a_block),
                 wakeups_, bar_->count());
  }

 private:
  PacedQm5& device_;
  std::unique_ptr<PaintedPercents> bar_;
  double update_ = 0;
  double bare_ = 0;
  Gaps gaps_;
  std::atomic<long> waits_ = 0;  // of the main thread's event loop, since the update began
  double wakeups_ = 0;
};

}  // namespace
}  // namespace qm5

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const std::size_t blocks = std::strtoul(argv[1], nullptr, 10);
  new qm5::ReadyLink;
  auto* const device = new qm5::PacedQm5(blocks, std::chrono::microseconds(std::atol(argv[2])));
  device->attach();
  auto* const application = new qm5::PacedUpdate(blocks, *device);
  qm5::setSystemLog([application](std::string_view line) {
    if (line == "SWFs completed SUCCESSFULLY") application->repeat();
  });
  return application->run(argc, argv);
}
