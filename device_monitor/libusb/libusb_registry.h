// The USB registry on libusb-1.0.
//
// libusb calls the hot-plug callback on whatever thread handles its events, which may be one in
// the middle of a request. So the callback only notes which device came or went and queues the
// rest: opening, closing and announcing happen on the watch's queue.
#pragma once

#include <libusb.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device_monitor/libusb/event_turns.h"
#include "device_monitor/libusb/libusb_device.h"
#include "device_monitor/usb_registry.h"

namespace qm5 {

class LibusbRegistry final : public USBRegistry {
 public:
  /// A registry that lives for the rest of the process, as do the threads that serve it. With
  /// `place`, the kernel's name of a port as in "1-4.2", it has what is plugged in there alone.
  static LibusbRegistry& create(std::string place = {});

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
  void runLoop() override;

 private:
  using Devices = std::vector<std::shared_ptr<LibusbDevice>>;

  struct Watch {
    IONotificationType type;
    MatchingDictionary matching;
    MatchingCallback callback;
    std::shared_ptr<DispatchQueue> queue;
    std::deque<std::shared_ptr<LibusbDevice>> pending;  // what its iterator will yield
    bool armed = false;                                 // drained since the last callback
  };

  explicit LibusbRegistry(std::string place) : place_(std::move(place)) {}
  ~LibusbRegistry() override = default;  // nobody may destroy it

  bool connect();
  static int LIBUSB_CALL hotplug(libusb_context* context, libusb_device* device,
                                 libusb_hotplug_event event, void* self);
  Devices::iterator findPresent(const libusb_device* device);
  std::chrono::milliseconds announcePermitted();
  Devices refusedDevices();
  void arrived(libusb_device* device);
  void announce(const std::shared_ptr<LibusbDevice>& device);
  void left(libusb_device* device);
  void enqueue(io_iterator_t iterator, Watch& watch, const std::shared_ptr<LibusbDevice>& device);
  std::shared_ptr<LibusbDevice> findService(io_service_t service);

  const std::string place_;  // empty: the whole bus
  bool connected_ = false;   // used by the thread that arms the watches, then serves
  EventTurns turns_;
  double asked_at_ = 0;  // seconds of the clock; the thread that serves events

  std::mutex mutex_;  // guards all that follows
  std::uint64_t last_entry_id_ = 0;
  std::uint32_t last_handle_ = 0;
  // The devices that libusb has reported and not yet reported gone, in order of arrival. libusb may
  // report an arrival twice, from its list of devices and as an event: the second is ignored.
  Devices present_;
  std::map<io_port_t, std::shared_ptr<DispatchQueue>> ports_;
  std::map<io_iterator_t, Watch> watches_;
  std::map<io_service_t, std::shared_ptr<LibusbDevice>> services_;
  // Interfaces are never released by those who hold them, so their objects stay.
  Devices handed_out_;
};

}  // namespace qm5
