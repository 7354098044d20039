#include "simulator/usb_bus/emulated_bus.h"

#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>
#include <vector>

#include "platform/fatal.h"
#include "platform/text.h"
#include "simulator/device/descriptors.h"
#include "simulator/usb_bus/usbfs_node.h"

namespace qm5 {
namespace {

constexpr unsigned int kLastAddress = 127;  // an address on USB has seven bits
constexpr unsigned int kFirstAddress = 3;   // the two hubs have the ones before it
constexpr const char* kRootHubPath = "/devices/pci0000:00/0000:00:14.0/usb1";
constexpr const char* kHubPath = "/devices/pci0000:00/0000:00:14.0/usb1/1-1";

// Of the devices alone: each has the QM5's configuration behind that.
constexpr const char* kRootHubDescriptor = "12010002090000406b1d0200000600000001";
constexpr const char* kHubDescriptor =
    "1201000209000140"
    "51040100"
    "000100000001";

// A file that nobody may open for writing, not even root. As the device's node it gives a program
// the same error as a node without permission.
constexpr const char* kForbiddenToAll = "/proc/sys/kernel/ostype";

/// A number of at most three digits, with leading zeros as in the names of nodes.
std::string threeDigits(unsigned int number) {
  const std::string digits = std::to_string(number);
  return std::string(3 - digits.size(), '0') + digits;
}

std::string nodePath(unsigned int address) {
  return "/dev/bus/usb/001/" + threeDigits(address);
}

std::string hexText(ByteView bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) text += lowerHexByte(byte);
  return text;
}

/// A device in umockdev's notation.
std::string describe(const std::string& path, unsigned int address, const std::string& attributes,
                     const std::string& descriptor) {
  const std::string number = threeDigits(address);
  return "P: " + path + "\nE: DEVNAME=" + nodePath(address) +
         "\nE: DEVTYPE=usb_device\nE: SUBSYSTEM=usb\nE: BUSNUM=001\nE: DEVNUM=" + number +
         "\nE: MAJOR=189\nE: MINOR=" + std::to_string(address - 1) +
         "\nA: dev=189:" + std::to_string(address - 1) +
         "\nA: busnum=1\nA: devnum=" + std::to_string(address) +
         "\nA: speed=480\nA: bConfigurationValue=1\n" + attributes +
         "H: descriptors=" + descriptor + hexText(kConfigurationDescriptor) + "\n\n";
}

std::string describeRootHub() {
  return describe(kRootHubPath, 1, "A: idVendor=1d6b\nA: idProduct=0002\n", kRootHubDescriptor);
}

std::string describeHub() {
  return describe(kHubPath, 2, "A: idVendor=0451\nA: idProduct=0001\n", kHubDescriptor);
}

std::string describeQm5(const std::string& path, unsigned int address,
                        const std::optional<std::string>& product) {
  std::string attributes = "A: idVendor=0451\nA: idProduct=ace1\n";
  if (product) attributes += "A: product=" + *product + "\n";
  return describe(path, address, attributes, hexText(kDeviceDescriptor));
}

}  // namespace

struct EmulatedBus::Kernel {
  GObjectPointer<UMockdevTestbed> test_bed{umockdev_testbed_new()};

  std::string rootDirectory() const {
    const std::unique_ptr<gchar, decltype(&g_free)> path(
        umockdev_testbed_get_root_dir(test_bed.get()), g_free);
    return path.get();
  }

  /// Makes the node of a device, or another one in its place. To be called before add(), which
  /// announces the device: a program may open the node at once.
  void makeNode(const std::string& path, bool permitted) const {
    const std::filesystem::path real = rootDirectory() + path;
    const std::filesystem::path made = real.string() + ".new";
    std::error_code error;
    std::filesystem::create_directories(real.parent_path(), error);
    if (permitted) {
      std::ofstream(made).close();
    } else {
      std::filesystem::create_symlink(kForbiddenToAll, made, error);
    }
    std::filesystem::rename(made, real, error);
    if (!std::filesystem::exists(real)) fatal("the emulated bus can't make a device node");
  }

  void add(const std::string& description) const {
    if (!umockdev_testbed_add_from_string(test_bed.get(), description.c_str(), nullptr)) {
      fatal("umockdev refuses the description of a device");
    }
  }
};

struct EmulatedBus::Port {
  FaultyQm5& device;
  const std::string path;                          // of the device in /sys
  unsigned int address = 0;                        // of the device
  GObjectPointer<UMockdevIoctlBase> handler = {};  // null when no device is plugged in
  UsbfsNode* node = nullptr;                       // owned by the handler
};

void EmulatedBus::enterMockEnvironment(char** argv) {
  // umockdev_in_mock_environment() is of no use: asked before the test bed exists, it says no for
  // the rest of the process.
  const char* const preloaded = std::getenv("LD_PRELOAD");
  if (preloaded != nullptr && std::strstr(preloaded, "libumockdev-preload") != nullptr) {
    // For the programs to come; several at once need it. Missing where the build tree is.
    const std::string libraries = std::string(QM5_EVENT_SOCKETS ":") + preloaded;
    if (access(QM5_EVENT_SOCKETS, R_OK) == 0) setenv("LD_PRELOAD", libraries.c_str(), 1);
    return;
  }
  std::array<char, 4096> self{};
  if (readlink("/proc/self/exe", self.data(), self.size() - 1) < 0)
    fatal("/proc/self/exe can't be read");
  std::vector<char*> words;
  std::string wrapper = "umockdev-wrapper";
  words.push_back(wrapper.data());
  words.push_back(self.data());
  for (char** word = argv + 1; *word != nullptr; ++word) words.push_back(*word);
  words.push_back(nullptr);
  execvp(words[0], words.data());
  fatal("umockdev-wrapper can't be started; is umockdev installed?");
}

std::string EmulatedBus::placeOf(std::size_t index) {
  return "1-1." + std::to_string(index + 2);
}

EmulatedBus::EmulatedBus(const std::vector<FaultyQm5*>& devices, Options options)
    : options_(std::move(options)), kernel_(std::make_unique<Kernel>()) {
  kernel_->makeNode(nodePath(1), true);
  kernel_->add(describeRootHub());
  kernel_->makeNode(nodePath(2), true);
  kernel_->add(describeHub());
  ports_.reserve(devices.size());
  for (FaultyQm5* const device : devices)
    ports_.push_back({*device, std::string(kHubPath).append("/").append(placeOf(ports_.size()))});
  departure_thread_ = std::thread([this] { handleDepartures(); });
}

EmulatedBus::~EmulatedBus() {
  {
    const std::lock_guard lock(departure_mutex_);
    stopping_ = true;
    departure_changed_.notify_all();
  }
  departure_thread_.join();
  unplug();
}

void EmulatedBus::plug() {
  const std::lock_guard lock(mutex_);
  unplugDepartedLocked();
  for (Port& port : ports_) plugLocked(port);
}

void EmulatedBus::unplug() {
  const std::lock_guard lock(mutex_);
  for (Port& port : ports_) unplugLocked(port);
}

void EmulatedBus::setPermitted(bool permitted) {
  const std::lock_guard lock(mutex_);
  options_.permitted = permitted;
  for (const Port& port : ports_) {
    if (port.handler) kernel_->makeNode(nodePath(port.address), permitted);
  }
}

// As in the kernel: the next address that is free, and after the last one the first again.
unsigned int EmulatedBus::nextAddressLocked() {
  const auto is_taken = [this](const Port& port) {
    return port.handler && port.address == address_;
  };
  do {
    address_ = address_ < kLastAddress ? address_ + 1 : kFirstAddress;
  } while (std::any_of(ports_.begin(), ports_.end(), is_taken));
  return address_;
}

void EmulatedBus::plugLocked(Port& port) {
  if (port.handler) return;
  port.device.powerCycle();
  port.address = nextAddressLocked();
  const auto control = [&device = port.device](const ControlSetup& setup, ByteView data) {
    return device.control(setup, data);
  };
  const auto left = [this, &port, address = port.address](bool comes_back) {
    const std::lock_guard lock(departure_mutex_);
    departures_.push_back({&port, address, comes_back});
    departure_changed_.notify_all();
  };
  port.handler = UsbfsNode::makeHandler({control, left, options_.latency}, port.node);
  const std::string node_path = nodePath(port.address);
  // Before the device appears: a program may open it as soon as it does.
  umockdev_testbed_attach_ioctl(kernel_->test_bed.get(), node_path.c_str(), port.handler.get(),
                                nullptr);
  kernel_->makeNode(node_path, options_.permitted);
  kernel_->add(describeQm5(port.path, port.address, options_.product));
}

void EmulatedBus::unplugLocked(Port& port) {
  if (!port.handler) return;
  port.node->disconnect();
  const std::string path = "/sys" + port.path;
  umockdev_testbed_detach_ioctl(kernel_->test_bed.get(), nodePath(port.address).c_str(), nullptr);
  // The event needs the device's properties, so it is sent before the device is removed.
  umockdev_testbed_uevent(kernel_->test_bed.get(), path.c_str(), "remove");
  umockdev_testbed_remove_device(kernel_->test_bed.get(), path.c_str());
  port.node = nullptr;
  port.handler.reset();
}

// Takes devices that have left by themselves off the bus, unless that has been done already.
// Returns the ports of those that are to come back. The caller holds mutex_.
std::vector<EmulatedBus::Port*> EmulatedBus::unplugDepartedLocked() {
  std::vector<Departure> departures;
  {
    const std::lock_guard lock(departure_mutex_);
    departures.swap(departures_);
  }
  std::vector<Port*> return_to;
  for (const Departure& each : departures) {
    // It may have been unplugged and plugged in again in the meantime.
    if (!each.port->handler || each.address != each.port->address) continue;
    unplugLocked(*each.port);
    if (each.comes_back) return_to.push_back(each.port);
  }
  return return_to;
}

void EmulatedBus::handleDepartures() {
  std::unique_lock lock(departure_mutex_);
  while (!stopping_) {
    departure_changed_.wait(lock, [&] { return stopping_ || !departures_.empty(); });
    if (stopping_) return;
    lock.unlock();
    std::vector<Port*> return_to;
    {
      const std::lock_guard bus_lock(mutex_);
      return_to = unplugDepartedLocked();
    }
    lock.lock();
    if (return_to.empty()) continue;
    departure_changed_.wait_for(lock, options_.replug_delay, [&] { return stopping_; });
    if (stopping_) return;
    lock.unlock();
    {
      const std::lock_guard bus_lock(mutex_);
      for (Port* const port : return_to) plugLocked(*port);
    }
    lock.lock();
  }
}

}  // namespace qm5
