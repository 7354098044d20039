#include "simulator/usb_bus/usbfs_node.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace qm5 {
namespace {

constexpr std::uint32_t kCapabilities =
    USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_NO_PACKET_SIZE_LIM | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
// An emulated node is always ready for poll(), so a program with a transfer under way would ask
// for its end without a pause. Each such request waits up to this long instead.
constexpr std::chrono::milliseconds kReapPause{2};

std::size_t argumentSize(unsigned long request) {
  return _IOC_SIZE(request);
}

ByteView view(const UMockdevIoctlData& data) {
  return {data.data, static_cast<std::size_t>(data.data_len)};
}

template <typename T>
T load(const UMockdevIoctlData& data) {
  T value;
  std::memcpy(&value, data.data, sizeof value);
  return value;
}

template <typename T>
void store(UMockdevIoctlData& data, const T& value) {
  std::memcpy(data.data, &value, sizeof value);
}

/// The buffer of a submitted transfer: the setup packet, then the data.
UMockdevIoctlData* resolveBuffer(UMockdevIoctlData* urb) {
  const auto length = static_cast<gsize>(load<usbdevfs_urb>(*urb).buffer_length);
  return umockdev_ioctl_data_resolve(urb, offsetof(usbdevfs_urb, buffer), length, nullptr);
}

/// Writes the result of a transfer into the program's usbdevfs_urb and buffer.
void storeResult(UMockdevIoctlData* urb, const ControlResult& result, int status) {
  const GObjectPointer<UMockdevIoctlData> buffer(resolveBuffer(urb));
  usbdevfs_urb record = load<usbdevfs_urb>(*urb);
  record.status = status;
  const ControlSetup setup = parseSetup(view(*buffer));
  if (status != 0) {
    record.actual_length = 0;
  } else if (isRead(setup)) {
    std::copy(result.data.begin(), result.data.end(), buffer->data + kSetupBytes);
    record.actual_length = static_cast<int>(result.data.size());
  } else {
    record.actual_length = setup.wLength;
  }
  store(*urb, record);
}

}  // namespace

UsbfsNode::UsbfsNode(Device device) : device_(std::move(device)) {}

GObjectPointer<UMockdevIoctlBase> UsbfsNode::makeHandler(Device device, UsbfsNode*& node) {
  GObjectPointer<UMockdevIoctlBase> handler(umockdev_ioctl_base_new());
  node = new UsbfsNode(std::move(device));  // deleted by destroy(), with the handler
  // umockdev hands the address to its thread in a way that ThreadSanitizer can't follow. Both
  // threads take this lock, so what this one has written is visible to the other.
  { const std::lock_guard lock(node->mutex_); }
  g_signal_connect_data(handler.get(), "handle-ioctl", G_CALLBACK(handle), node, destroy,
                        static_cast<GConnectFlags>(0));
  return handler;
}

void UsbfsNode::destroy(gpointer node, GClosure* /*closure*/) {
  auto* const self = static_cast<UsbfsNode*>(node);
  { const std::lock_guard lock(self->mutex_); }  // makes other threads' writes visible
  delete self;
}

void UsbfsNode::disconnect() {
  const std::lock_guard lock(mutex_);
  connected_ = false;
  for (Transfer& transfer : transfers_) {
    if (transfer.status == -EINPROGRESS) transfer.status = -ESHUTDOWN;
    transfer.ready = Clock::now();
  }
  changed_.notify_all();
}

gboolean UsbfsNode::handle(UMockdevIoctlBase* /*handler*/, UMockdevIoctlClient* client,
                           gpointer node) {
  const unsigned long request = umockdev_ioctl_client_get_request(client);
  UMockdevIoctlData* const outer = umockdev_ioctl_client_get_arg(client);  // not owned
  GObjectPointer<UMockdevIoctlData> argument;
  int error = 0;
  if (argumentSize(request) > 0) {
    argument.reset(umockdev_ioctl_data_resolve(outer, 0, argumentSize(request), nullptr));
    if (!argument) error = EFAULT;  // the program ended during the request
  }
  if (error == 0) error = static_cast<UsbfsNode*>(node)->answer(client, request, argument.get());
  umockdev_ioctl_client_complete(client, error == 0 ? 0 : -1, error);
  return TRUE;
}

bool UsbfsNode::isDisconnected() {
  const std::lock_guard lock(mutex_);
  return !connected_;
}

int UsbfsNode::answer(UMockdevIoctlClient* client, unsigned long request,
                      UMockdevIoctlData* argument) {
  if (request == USBDEVFS_REAPURBNDELAY) return reap(client, argument);
  if (request == USBDEVFS_DISCARDURB) return discard(client);
  if (isDisconnected()) return ENODEV;
  switch (request) {
    case USBDEVFS_SUBMITURB:
      return submit(client, argument);
    case USBDEVFS_GET_CAPABILITIES:
      store(*argument, kCapabilities);
      return 0;
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_RELEASEINTERFACE:
      return 0;
    default:
      return ENOTTY;
  }
}

int UsbfsNode::submit(UMockdevIoctlClient* client, UMockdevIoctlData* argument) {
  const auto record = load<usbdevfs_urb>(*argument);
  if (record.type != USBDEVFS_URB_TYPE_CONTROL) return EINVAL;
  if (record.buffer_length < static_cast<int>(kSetupBytes)) return EINVAL;
  const GObjectPointer<UMockdevIoctlData> buffer(resolveBuffer(argument));
  if (!buffer) return EFAULT;
  const ByteView bytes = view(*buffer);
  const ControlSetup setup = parseSetup(bytes);
  const ByteView payload = bytes.subspan(kSetupBytes);
  if (payload.size() < setup.wLength) return EINVAL;

  const auto ready = Clock::now() + device_.latency;
  ControlResult result =
      device_.control(setup, isRead(setup) ? ByteView() : payload.first(setup.wLength));
  if (result.status == ControlStatus::gone) {
    disconnect();
    device_.left(result.comes_back);
    return ENODEV;
  }
  const std::lock_guard lock(mutex_);
  const int status = linuxStatus(result.status);
  const bool cut_off = !connected_ && status == -EINPROGRESS;
  g_object_ref(argument);
  transfers_.push_back({client, GObjectPointer<UMockdevIoctlData>(argument), std::move(result),
                        ready, cut_off ? -ESHUTDOWN : status});
  return 0;
}

int UsbfsNode::discard(UMockdevIoctlClient* client) {
  // The argument is the address of the usbdevfs_urb in the program.
  const auto address = load<gulong>(*umockdev_ioctl_client_get_arg(client));
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(transfers_.begin(), transfers_.end(), [&](const Transfer& each) {
    return each.client == client && each.urb->client_addr == address && each.status == -EINPROGRESS;
  });
  if (found == transfers_.end()) return EINVAL;
  found->status = -ENOENT;
  return 0;
}

int UsbfsNode::reap(UMockdevIoctlClient* client, UMockdevIoctlData* argument) {
  std::unique_lock lock(mutex_);
  const auto finished = awaitFinished(lock, client);
  if (finished == transfers_.end()) return connected_ ? EAGAIN : ENODEV;
  const Transfer transfer = std::move(*finished);
  transfers_.erase(finished);
  lock.unlock();
  storeResult(transfer.urb.get(), transfer.result, transfer.status);
  umockdev_ioctl_data_set_ptr(argument, 0, transfer.urb.get());
  return 0;
}

std::list<UsbfsNode::Transfer>::iterator UsbfsNode::awaitFinished(
    std::unique_lock<std::mutex>& lock, const UMockdevIoctlClient* client) {
  const auto is_of_client = [&](const Transfer& each) { return each.client == client; };
  const auto finished = [&](const Transfer& each) {
    return is_of_client(each) && each.status != -EINPROGRESS && each.ready <= Clock::now();
  };
  const auto find = [&] { return std::find_if(transfers_.begin(), transfers_.end(), finished); };
  const auto deadline = Clock::now() + kReapPause;
  while (find() == transfers_.end() && Clock::now() < deadline &&
         std::any_of(transfers_.begin(), transfers_.end(), is_of_client)) {
    auto until = deadline;
    for (const Transfer& each : transfers_) {
      if (is_of_client(each) && each.status != -EINPROGRESS) until = std::min(until, each.ready);
    }
    changed_.wait_until(lock, until);
  }
  return find();
}

}  // namespace qm5
