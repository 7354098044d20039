// The kernel's side of one device node under /dev/bus/usb: answers the ioctl requests that a
// program makes to the open node, for as long as any program has it open.
//
// umockdev calls it on a thread of umockdev's own, one request at a time.
#pragma once

#include <umockdev.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "simulator/device/control_request.h"

namespace qm5 {

struct Unreference {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPointer = std::unique_ptr<T, Unreference>;

class UsbfsNode {
 public:
  /// The device behind the node.
  struct Device {
    std::function<ControlResult(const ControlSetup&, ByteView)> control;
    std::function<void(bool comes_back)> left;  ///< called when it left during a request
    std::chrono::milliseconds latency;          ///< of each request
  };

  /// Makes the handler to attach to the node, and sets `node` to the UsbfsNode that the handler
  /// owns. It lives until the last reference to the handler is dropped and no program has the
  /// node open any more.
  static GObjectPointer<UMockdevIoctlBase> makeHandler(Device device, UsbfsNode*& node);

  /// To be called when the device has left. Transfers under way end as they do in the kernel, and
  /// every later request fails with ENODEV. Any thread.
  void disconnect();

 private:
  using Clock = std::chrono::steady_clock;

  /// A transfer that a program has submitted and whose end it has not fetched yet.
  struct Transfer {
    const UMockdevIoctlClient* client;  // who submitted it; compared, never used
    GObjectPointer<UMockdevIoctlData> urb;
    ControlResult result;
    Clock::time_point ready;
    int status;  // as in usbdevfs_urb: 0 or a negative errno, -EINPROGRESS while it has no end
  };

  explicit UsbfsNode(Device device);
  static gboolean handle(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, gpointer node);
  static void destroy(gpointer node, GClosure* closure);

  /// Returns the errno of the request, 0 when it succeeds.
  int answer(UMockdevIoctlClient* client, unsigned long request, UMockdevIoctlData* argument);
  int submit(UMockdevIoctlClient* client, UMockdevIoctlData* argument);
  int discard(UMockdevIoctlClient* client);
  int reap(UMockdevIoctlClient* client, UMockdevIoctlData* argument);
  std::list<Transfer>::iterator awaitFinished(std::unique_lock<std::mutex>& lock,
                                              const UMockdevIoctlClient* client);
  bool isDisconnected();

  std::mutex mutex_;
  std::condition_variable changed_;
  Device device_;
  bool connected_ = true;
  std::list<Transfer> transfers_;
};

}  // namespace qm5
