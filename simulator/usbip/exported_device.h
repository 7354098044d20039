// A device as hosts import it: what the kernel of a host asks every device is answered here, and
// all else by the device itself.
//
// One caller at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "simulator/device/control_request.h"

namespace qm5 {

class ExportedDevice {
 public:
  struct Options {
    std::optional<std::string> product = "QM5";  ///< of ASCII; empty: it has no product name
    std::chrono::milliseconds latency{0};        ///< of each control request
  };

  /// `bus_id` is what a host imports the device by, such as "1-1.2", at most 31 bytes; `address` is
  /// its number on the exported bus. `endpoint` must outlive this object.
  ExportedDevice(std::string bus_id, std::uint32_t address, ControlEndpoint& endpoint,
                 Options options)
      : bus_id_(std::move(bus_id)),
        address_(address),
        endpoint_(endpoint),
        options_(std::move(options)) {}

  /// Gives the device power; false when it is plugged in somewhere already.
  bool plug();
  void unplug() { plugged_ = false; }

  ControlResult control(const ControlSetup& setup, ByteView data);

  const std::string& busId() const { return bus_id_; }
  std::uint32_t address() const { return address_; }
  std::chrono::milliseconds latency() const { return options_.latency; }
  std::uint8_t configuration() const { return configuration_; }

 private:
  std::optional<Bytes> answerStandardRequest(const ControlSetup& setup);
  static std::optional<Bytes> answerOfInterface(const ControlSetup& setup);
  std::optional<Bytes> descriptor(std::uint16_t value) const;
  std::optional<Bytes> text(std::uint8_t number) const;

  const std::string bus_id_;
  const std::uint32_t address_;
  ControlEndpoint& endpoint_;
  const Options options_;
  bool plugged_ = false;
  std::uint8_t configuration_ = 0;  // 0: none is chosen
};

}  // namespace qm5
