#include "device_link/customer_version.h"

#include <cstdint>

#include "device_link/driver.h"
#include "device_link/vendor_requests.h"
#include "platform/fatal.h"
#include "platform/text.h"

namespace qm5 {
namespace {

// Unlike the other registers, this one is read without a length byte before its contents.
constexpr std::uint16_t kVersionRegister = 0x06;
constexpr std::uint16_t kVersionLength = 9;

}  // namespace

std::optional<std::string> read_customer_version() {
  if (!global_driver) return std::nullopt;
  const std::optional<Bytes> reply =
      global_driver->usb_read(kVendorRead, kRegisterRead, kVersionRegister, 0, kVersionLength);
  if (!reply) return std::nullopt;
  if (reply->size() < 2) fatal("a version reply shorter than two bytes");
  return upperHexByte((*reply)[1]) + upperHexByte((*reply)[0]);
}

}  // namespace qm5
