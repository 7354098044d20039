#include "simulator/usbip/connection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace qm5 {
namespace {

constexpr std::size_t kReadBytes = std::size_t{16} * 1024;
// No host has that many requests to one endpoint under way; one that never reads their ends would
// take all memory.
constexpr std::size_t kMostTransfers = 1024;

bool isUnderWay(const ControlResult& result) {
  return result.status == ControlStatus::pending;
}

}  // namespace

UsbipConnection::UsbipConnection(Descriptor socket, std::deque<ExportedDevice>& devices)
    : socket_(std::move(socket)), devices_(devices) {}

UsbipConnection::~UsbipConnection() {
  if (device_ != nullptr) device_->unplug();
}

// A host that doesn't read gets nothing more to read.
short UsbipConnection::awaited() const {
  return output_.empty() ? POLLIN : POLLOUT;
}

std::optional<UsbipConnection::Clock::time_point> UsbipConnection::nextEnd() const {
  std::optional<Clock::time_point> next;
  for (const Transfer& each : transfers_) {
    if (!isUnderWay(each.result)) next = std::min(next.value_or(each.ready), each.ready);
  }
  return next;
}

void UsbipConnection::proceed() {
  if (output_.empty()) receive();
  if (!ended_) handlePackets();
  if (!ended_) endTransfers();
  if (!ended_) send();
}

void UsbipConnection::receive() {
  std::array<std::uint8_t, kReadBytes> bytes;
  const ssize_t count = recv(socket_.get(), bytes.data(), bytes.size(), 0);
  if (count > 0) {
    input_.insert(input_.end(), bytes.begin(), bytes.begin() + count);
    return;
  }
  const bool nothing_yet = count < 0 && (errno == EAGAIN || errno == EINTR);
  ended_ = !nothing_yet;
}

void UsbipConnection::handlePackets() {
  std::size_t handled = 0;
  while (!closing_ && !ended_) {
    const ByteView left = ByteView(input_).subspan(handled);
    const auto size = hasDevice() ? commandSize(left) : requestSize(left);
    ended_ = !size;
    if (ended_ || left.size() < *size) break;
    const ByteView packet = left.first(*size);
    if (hasDevice()) {
      handleCommand(parseCommand(packet), sentData(packet));
    } else {
      handleRequest(parseRequest(packet));
    }
    handled += *size;
  }
  input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(handled));
}

void UsbipConnection::handleRequest(const UsbipRequest& request) {
  const bool lists = request.kind == UsbipRequest::Kind::list;
  enqueue(lists ? listReply(devices_) : importDevice(request.bus_id));
  closing_ = !hasDevice();
}

Bytes UsbipConnection::importDevice(const std::string& bus_id) {
  const auto found = std::find_if(devices_.begin(), devices_.end(),
                                  [&](const auto& each) { return each.busId() == bus_id; });
  if (found == devices_.end()) return importRefusal(ImportError::no_such_device);
  if (!found->plug()) return importRefusal(ImportError::busy);
  device_ = &*found;
  return importReply(*found);
}

void UsbipConnection::handleCommand(const UsbipCommand& command, ByteView sent) {
  if (command.device != deviceNumber(*device_)) {
    ended_ = true;
  } else if (command.kind == UsbipCommand::Kind::submit) {
    submit(command, sent);
  } else {
    enqueue(unlinkReply(command, unlink(command.unlinked)));
  }
}

void UsbipConnection::submit(const UsbipCommand& command, ByteView sent) {
  const auto ready = Clock::now() + device_->latency();
  ControlResult result = device_->control(command.setup, sent);
  closing_ = result.status == ControlStatus::gone;
  if (!closing_) transfers_.push_back({command, std::move(result), ready});
  ended_ = transfers_.size() > kMostTransfers;
}

/// Gives a transfer up, unless it has ended; returns the status of the reply.
int UsbipConnection::unlink(std::uint32_t sequence) {
  endTransfers();
  const auto has_sequence = [&](const Transfer& each) { return each.command.sequence == sequence; };
  return std::erase_if(transfers_, has_sequence) > 0 ? -ECONNRESET : 0;
}

void UsbipConnection::endTransfers() {
  const auto now = Clock::now();
  std::erase_if(transfers_, [&](const Transfer& each) {
    const bool ends = !isUnderWay(each.result) && each.ready <= now;
    if (ends) enqueue(submitReply(each.command, each.result));
    return ends;
  });
}

void UsbipConnection::send() {
  if (output_.empty() && !closing_) return;
  const ssize_t count = ::send(socket_.get(), output_.data(), output_.size(), MSG_NOSIGNAL);
  const bool later = count < 0 && (errno == EAGAIN || errno == EINTR);
  if (count > 0) output_.erase(output_.begin(), output_.begin() + count);
  ended_ = (count < 0 && !later) || (closing_ && output_.empty());
}

void UsbipConnection::enqueue(const Bytes& packet) {
  output_.insert(output_.end(), packet.begin(), packet.end());
}

}  // namespace qm5
