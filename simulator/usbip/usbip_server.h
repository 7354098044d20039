// Exports software QM5s by Linux's USB/IP protocol: a host's kernel plugs them into its own USB
// stack, as `usbip attach` asks it to.
//
// A host plugs a device in by importing it, and hears of its removal by the end of the connection.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "platform/descriptor.h"
#include "simulator/usbip/connection.h"
#include "simulator/usbip/exported_device.h"

namespace qm5 {

struct UsbipAddress {
  std::optional<std::string> host;  ///< name or number; empty: the loopback interface
  std::uint16_t port = 3240;        ///< of TCP; 0: any that is free at the one `host`
};

class UsbipServer {
 public:
  /// To be filled before start(); its devices must outlive the server.
  explicit UsbipServer(std::deque<ExportedDevice>& devices) : devices_(devices) {}
  ~UsbipServer();
  UsbipServer(const UsbipServer&) = delete;
  UsbipServer& operator=(const UsbipServer&) = delete;

  /// Begins to serve, on a thread of the server's own. Returns why that is not possible, and empty
  /// otherwise. To be called once.
  std::optional<std::string> start(const UsbipAddress& address);
  /// The port at which it serves.
  std::uint16_t port() const { return port_; }

  /// Takes the devices away from the hosts that have imported them, soon. Any thread.
  void unplug();

 private:
  std::optional<std::string> listen(const UsbipAddress& address);
  void serve();
  void waitForEvents();
  void acceptConnections();
  int timeLeft() const;
  void wake() const;

  std::deque<ExportedDevice>& devices_;
  std::vector<Descriptor> listeners_;
  std::uint16_t port_ = 0;
  Descriptor wake_up_;  // an eventfd

  std::atomic<bool> stopping_ = false;
  std::atomic<bool> unplugging_ = false;
  std::vector<std::unique_ptr<UsbipConnection>> connections_;  // of thread_ alone
  std::thread thread_;
};

}  // namespace qm5
