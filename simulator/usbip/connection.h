// One host's connection: its first request, and then the transfers of the device that it has
// imported. Closing it takes the device away from the host, and the host's end of it gives the
// device back.
//
// One caller at a time. No function waits for the host.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <optional>

#include "platform/descriptor.h"
#include "simulator/usbip/exported_device.h"
#include "simulator/usbip/packets.h"

namespace qm5 {

class UsbipConnection {
 public:
  using Clock = std::chrono::steady_clock;

  /// `socket` does not block. The devices must outlive the connection.
  UsbipConnection(Descriptor socket, std::deque<ExportedDevice>& devices);
  ~UsbipConnection();
  UsbipConnection(const UsbipConnection&) = delete;
  UsbipConnection& operator=(const UsbipConnection&) = delete;

  int descriptor() const { return socket_.get(); }
  /// What proceed() waits for, as poll() has it.
  short awaited() const;
  /// When proceed() is to be called even without that; empty when never.
  std::optional<Clock::time_point> nextEnd() const;

  /// Reads what has come, carries it out, and writes what is due.
  void proceed();

  /// Whether it is of no use any more. The caller then drops it.
  bool hasEnded() const { return ended_; }
  bool hasDevice() const { return device_ != nullptr; }

 private:
  /// A transfer whose end the host has not been told yet.
  struct Transfer {
    UsbipCommand command;
    ControlResult result;
    Clock::time_point ready;
  };

  void receive();
  void handlePackets();
  void handleRequest(const UsbipRequest& request);
  Bytes importDevice(const std::string& bus_id);
  void handleCommand(const UsbipCommand& command, ByteView sent);
  void submit(const UsbipCommand& command, ByteView sent);
  int unlink(std::uint32_t sequence);
  void endTransfers();
  void send();
  void enqueue(const Bytes& packet);

  Descriptor socket_;
  std::deque<ExportedDevice>& devices_;
  ExportedDevice* device_ = nullptr;  // the one that is imported
  Bytes input_;                       // no whole packet, once proceed() has returned
  Bytes output_;
  std::list<Transfer> transfers_;
  bool closing_ = false;  // ends once output_ is sent
  bool ended_ = false;
};

}  // namespace qm5
