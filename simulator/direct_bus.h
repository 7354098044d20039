// The updater's USB port with a software device right behind it: no bus, no kernel and no
// waiting, for what is one process with the device.
//
// One monitor, one device at a time. What the port hands out lives as long as the bus.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "device_monitor/usb_registry.h"
#include "simulator/control_request.h"

namespace qm5 {

class DirectBus final : public USBRegistry {
 public:
  DirectBus();
  ~DirectBus() override;
  DirectBus(const DirectBus&) = delete;
  DirectBus& operator=(const DirectBus&) = delete;

  // Any thread but the watches' queue. The first two return when the monitor has been
  // told, provided that it watches already.

  /// Gives the device power and an id that none had before. Nothing happens when there is
  /// one already. `device` stays the caller's, until after it has been unplugged.
  void plug(ControlEndpoint& device);
  /// Takes the device away. Nothing happens when there is none.
  void unplug();
  bool isPlugged() const;
  /// Returns once a monitor watches.
  void waitUntilWatched();

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
  IOReturn createPlugInInterfaceForService(io_service_t service, const UUIDBytes& plug_in_type,
                                           const UUIDBytes& interface_type,
                                           IOCFPlugInInterfaceStruct**& plug_in) override;
  IOReturn objectRelease(io_service_t service) override;
  /// Returns at once: who plugs and unplugs tells the watches.
  void runLoop() override;

 private:
  class Attachment;
  struct Watch {
    MatchingCallback callback;
    std::deque<Attachment*> pending = {};  // what its iterator will yield
    bool armed = false;                    // drained since it last called back
  };

  bool isPresent(const Attachment& attachment) const;
  void offer(IONotificationType type, Attachment* attachment);
  Attachment& find(io_service_t service);

  mutable std::mutex mutex_;  // guards all that follows
  std::condition_variable changed_;
  bool watched_ = false;
  std::shared_ptr<DispatchQueue> queue_;
  std::map<io_iterator_t, Watch> watches_;
  io_service_t last_service_ = 0;
  std::map<io_service_t, Attachment*> services_;
  Attachment* present_ = nullptr;
  // One for each plug(), in order; a device's id is its number.
  std::vector<std::unique_ptr<Attachment>> attachments_;
};

}  // namespace qm5
