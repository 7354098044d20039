// The kernel's side of one device node under /dev/bus/usb: answers the requests that a
// program makes to the open node, for as long as anybody has it open.
//
// The test bed calls it on a thread of its own, which it stands still on while a request
// is under way.
#pragma once

#include <umockdev.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

#include "simulator/control_request.h"

namespace qm5 {

struct Unreference {
  void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPointer = std::unique_ptr<T, Unreference>;

class UsbfsNode {
 public:
  /// What carries a control request out, and what is told when the device left during one.
  struct Device {
    std::function<ControlResult(const ControlSetup&, ByteView)> control;
    std::function<void(bool comes_back)> left;
    std::chrono::milliseconds latency;  ///< of each request
  };

  /// The handler to attach to the node. It owns the UsbfsNode, which `node` is set to and
  /// which lives until the last reference to the handler and the last open node are gone.
  static GObjectPointer<UMockdevIoctlBase> makeHandler(Device device, UsbfsNode*& node);

  /// The device has left: what waits ends as it does in the kernel, and every later
  /// request gets ENODEV. Any thread.
  void disconnect();

 private:
  using Clock = std::chrono::steady_clock;

  /// A request that a program has submitted and not yet fetched.
  struct Transfer {
    const UMockdevIoctlClient* client;  // whose it is; compared only
    GObjectPointer<UMockdevIoctlData> urb;
    ControlResult result;
    Clock::time_point ready;
    int status;  // 0, or the negative errno that it ends with
  };

  explicit UsbfsNode(Device device);
  static gboolean handle(UMockdevIoctlBase* handler, UMockdevIoctlClient* client, gpointer node);
  static void destroy(gpointer node, GClosure* closure);

  /// The errno that the request ends with, 0 for none.
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
