// The registry side of the USB port. Strict: each service must be released once, and an iterator
// must be one that it returned. Notes the calls in their order.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <future>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "device_monitor/usb_registry.h"
#include "scripted_usb_device.h"
#include "transcript.h"

namespace qm5::test {

/// One device in the registry, with what each step on it returns.
struct ScriptedService {
  std::optional<std::uint64_t> id = 7;           // none: the id can't be read
  std::optional<std::string_view> name = "QM5";  // none: the name can't be read
  std::string_view location = "1-4.2";
  IOReturn plug_in_result = kIOReturnSuccess;
  bool has_plug_in = true;
  IOReturn release_result = kIOReturnSuccess;
  ScriptedUsbDevice* device = nullptr;
};

/// Used by one thread at a time: arrive() and remove() wait for the monitor's callback.
class ScriptedUSBRegistry final : public USBRegistry {
 public:
  ScriptedUSBRegistry() { setUSBRegistry(this); }
  ~ScriptedUSBRegistry() override {
    EXPECT_TRUE(services_.empty()) << "services that nobody released";
    setUSBRegistry(nullptr);
  }

  // Script it.
  bool has_port = true;
  bool has_matching = true;
  void attach(ScriptedService service) { waiting_[kArrivals].push_back(service); }
  /// Makes the watch call back on its queue and waits until the callback has returned.
  void arrive(const std::vector<ScriptedService>& services) { callBack(kArrivals, services); }
  void remove(const std::vector<ScriptedService>& services) { callBack(kRemovals, services); }

  // Read it back.
  Lines takeSteps() { return steps_.take(); }

  // The port.
  io_port_t notificationPortCreate() override {
    steps_.note("port");
    return has_port ? kPort : 0;
  }
  void notificationPortSetDispatchQueue(io_port_t port,
                                        std::shared_ptr<DispatchQueue> queue) override {
    EXPECT_EQ(port, kPort);
    steps_.note("queue");
    queue_ = std::move(queue);
  }
  std::unique_ptr<MatchingDictionary> serviceMatching(const std::string& class_name) override {
    steps_.note("matching " + class_name);
    if (!has_matching) return nullptr;
    return std::make_unique<MatchingDictionary>(MatchingDictionary{class_name, {}});
  }
  IOReturn serviceAddMatchingNotification(io_port_t, IONotificationType type,
                                          const MatchingDictionary& matching,
                                          MatchingCallback callback,
                                          io_iterator_t& iterator) override {
    iterator = type == IONotificationType::firstMatch ? kArrivals : kRemovals;
    steps_.note("watch " + std::to_string(iterator) + " for " +
                std::to_string(matching.numbers.at("idVendor")) + "/" +
                std::to_string(matching.numbers.at("idProduct")));
    callbacks_[iterator] = std::move(callback);
    return kRefused;  // the result of a registration is ignored
  }
  io_service_t iteratorNext(io_iterator_t iterator) override {
    auto& waiting = waiting_.at(iterator);
    if (waiting.empty()) {
      steps_.note("drained " + std::to_string(iterator));
      return 0;
    }
    services_[++last_service_] = waiting.front();
    waiting.pop_front();
    return last_service_;
  }
  IOReturn registryEntryGetRegistryEntryID(io_service_t service, std::uint64_t& id) override {
    const ScriptedService& found = services_.at(service);
    id = found.id.value_or(id);
    return found.id ? kIOReturnSuccess : kRefused;
  }
  IOReturn registryEntryGetName(io_service_t service, io_name_t& name) override {
    const ScriptedService& found = services_.at(service);
    if (!found.name) return kRefused;
    std::copy(found.name->begin(), found.name->end(), name.begin());
    return kIOReturnSuccess;
  }
  IOReturn registryEntryGetLocation(io_service_t service, io_name_t& location) override {
    const std::string_view found = services_.at(service).location;
    std::copy(found.begin(), found.end(), location.begin());
    return kIOReturnSuccess;
  }
  IOReturn createPlugInInterfaceForService(io_service_t service, const UUIDBytes& plug_in_type,
                                           const UUIDBytes& interface_type,
                                           IOCFPlugInInterfaceStruct**& plug_in) override {
    EXPECT_EQ(plug_in_type, kIOUSBDeviceUserClientTypeID);
    EXPECT_EQ(interface_type, kIOCFPlugInInterfaceID);
    const ScriptedService& found = services_.at(service);
    if (found.has_plug_in && found.device != nullptr) plug_in = found.device->plugIn();
    return found.plug_in_result;
  }
  IOReturn objectRelease(io_service_t service) override {
    const IOReturn result = services_.at(service).release_result;
    services_.erase(service);
    return result;
  }
  void runLoop() override { steps_.note("run loop"); }

 private:
  static constexpr io_port_t kPort = 3;
  static constexpr io_iterator_t kArrivals = 4;
  static constexpr io_iterator_t kRemovals = 5;

  void callBack(io_iterator_t iterator, const std::vector<ScriptedService>& services) {
    waiting_[iterator].insert(waiting_[iterator].end(), services.begin(), services.end());
    std::promise<void> served;
    queue_->async([&, this] {
      callbacks_.at(iterator)(iterator);
      served.set_value();
    });
    served.get_future().wait();
  }

  Notes steps_;
  io_service_t last_service_ = 100;
  std::shared_ptr<DispatchQueue> queue_;
  std::map<io_iterator_t, MatchingCallback> callbacks_;
  std::map<io_iterator_t, std::deque<ScriptedService>> waiting_ = {{kArrivals, {}},
                                                                   {kRemovals, {}}};
  std::map<io_service_t, ScriptedService> services_;
};

}  // namespace qm5::test
