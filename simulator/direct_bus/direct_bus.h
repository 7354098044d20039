// An implementation of the updater's USB port that hands each request straight to a software
// device in the same process: no bus, no kernel, no waiting.
//
// For one monitor and one device at a time. What the port hands out lives as long as the bus.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "device_monitor/usb_registry.h"
#include "simulator/device/control_request.h"

namespace qm5 {

class DirectBus : public USBRegistry {
 public:
  DirectBus();
  ~DirectBus() override;
  DirectBus(const DirectBus&) = delete;
  DirectBus& operator=(const DirectBus&) = delete;

  // Any thread but the dispatch queue that the monitor's callbacks run on. When the monitor
  // watches already, plug() and unplug() return after its callback has run.

  /// Gives the device power and a new id. Does nothing when a device is plugged in already. The
  /// caller keeps `device` alive until it is unplugged.
  void plug(ControlEndpoint& device);
  /// Takes the device away. Does nothing when none is plugged in.
  void unplug();
  bool isPlugged() const;
  /// Returns when a monitor has started to watch.
  void waitUntilWatched();

  // The USB port.

  io_port_t notificationPortCreate() override;
  void notificationPortSetDispatchQueue(io_port_t port,
                                        std::shared_ptr<DispatchQueue> queue) override;
  std::unique_ptr<MatchingDictionary> serviceMatching(const std::string& class_name) override;
  IOReturn serviceAddMatchingNotification(io_port_t port, IONotificationType type,
                                          const MatchingDictionary& matching,
                                          MatchingCallback callback,
                                          io_iterator_t& iterator) override;
  io_service_t iteratorNext(io_iterator_t iterator) override;
  IOReturn registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) override;
  IOReturn registryEntryGetName(io_service_t service, io_name_t& name) override;
  IOReturn registryEntryGetLocation(io_service_t service, io_name_t& location) override;
  IOReturn createPlugInInterfaceForService(io_service_t service, const UUIDBytes& plug_in_type,
                                           const UUIDBytes& interface_type,
                                           IOCFPlugInInterfaceStruct**& plug_in) override;
  IOReturn objectRelease(io_service_t service) override;
  /// Returns at once: plug() and unplug() call the monitor back by themselves.
  void runLoop() override;

 private:
  class Attachment;
  struct Watch {
    MatchingCallback callback;
    std::deque<Attachment*> pending = {};  // what its iterator still has to return
    bool armed = false;  // the iterator was emptied after the last callback: call back again
  };

  bool isPresent(const Attachment& attachment) const;
  void enqueue(IONotificationType type, Attachment* attachment);
  Attachment& find(io_service_t service);

  mutable std::mutex mutex_;  // guards all that follows
  std::condition_variable changed_;
  bool watched_ = false;
  std::shared_ptr<DispatchQueue> queue_;
  std::map<io_iterator_t, Watch> watches_;
  io_service_t last_service_ = 0;
  std::map<io_service_t, Attachment*> services_;  // not yet released
  Attachment* present_ = nullptr;
  // One per plug(), in order. The first one's id is 1.
  std::vector<std::unique_ptr<Attachment>> attachments_;
};

}  // namespace qm5
