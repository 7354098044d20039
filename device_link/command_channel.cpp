#include "device_link/command_channel.h"

#include <algorithm>
#include <limits>
#include <string>

#include "device_link/driver.h"
#include "device_link/vendor_requests.h"
#include "platform/clock.h"
#include "platform/console.h"
#include "platform/fatal.h"

namespace qm5 {
namespace {

// wLength has 16 bits.
constexpr std::size_t kLongestRequest = std::numeric_limits<std::uint16_t>::max();

constexpr std::size_t kData1 = 0x09;
constexpr std::size_t kData2 = 0x11;
constexpr std::size_t kData3 = 0x1F;
constexpr std::size_t kExtendedData1 = 0x13;
constexpr std::size_t kExtendedData2 = 0x12;
constexpr std::uint16_t kCommand1 = 0x08;
constexpr std::uint16_t kCommand2 = 0x10;
constexpr std::uint16_t kCommand3 = 0x1E;

// A command-register read: the length byte and the four characters.
constexpr std::uint16_t kCommandReadLength = 5;

std::uint16_t polledCommandRegister(std::size_t interface_number) {
  switch (interface_number) {
    case 1:
      return kCommand1;
    case 2:
      return kCommand2;
    default:
      return kCommand3;
  }
}

// Only the first two characters count; the device may not have cleared the others yet.
bool commandHasFinished(std::uint16_t command_register) {
  if (!global_driver) return false;
  const std::optional<Bytes> reply =
      global_driver->usb_read(kVendorRead, kRegisterRead, command_register, 0, kCommandReadLength);
  return reply && (*reply)[1] == 0 && (*reply)[2] == 0;
}

}  // namespace

std::size_t data_register_for_interface(std::size_t interface_number,
                                        const ExtendedData& ext_data) {
  if (interface_number == 1) return ext_data ? kExtendedData1 : kData1;
  if (interface_number == 2) return ext_data ? kExtendedData2 : kData2;
  if (interface_number == 3 && !ext_data) return kData3;
  // The line names DATA1 but the value is a command register. This mismatch is intended.
  print("DATA" + std::to_string(interface_number) + " not available, providing DATA1");
  return kCommand3;
}

std::size_t usbep_write(std::size_t register_address, ByteView data) {
  if (!global_driver || data.empty()) return 0;
  const auto addr = narrow<std::uint32_t>(register_address, "register address over 32 bits");
  auto index = narrow<std::uint32_t>(data.size(), "register write over 32 bits");
  for (std::size_t offset = 0; offset < data.size(); offset += kBytesPerRegisterWrite) {
    const ByteView chunk =
        data.subspan(offset, std::min(kBytesPerRegisterWrite, data.size() - offset));
    // The result is ignored: whether the device has the data shows in the task's reply.
    if (global_driver) global_driver->usb_write(kVendorWrite, kRegisterWrite, addr, index, chunk);
    index = 0;
  }
  return data.size();
}

void write_4cc(std::string_view command, const std::optional<ByteView>& data,
               std::size_t interface_number, const ExtendedData& ext_data) {
  if (ext_data) {
    usbep_write(data_register_for_interface(interface_number, ext_data), *ext_data);
  }
  if (data) {
    // The same register: with extended data, the data goes to the extended register too. Intended.
    usbep_write(data_register_for_interface(interface_number, ext_data), *data);
  }
  // Every interface's command goes to interface 3's register; only the poll differs. Intended.
  const auto* characters = reinterpret_cast<const std::uint8_t*>(command.data());
  usbep_write(kCommand3, {characters, command.size()});
}

void wait_for_command(std::size_t max_retries, double delay_between_retries,
                      std::size_t interface_number) {
  const std::uint16_t command_register = polledCommandRegister(interface_number);
  std::size_t attempt = 0;
  do {
    if (commandHasFinished(command_register)) return;
    processClock().sleep(delay_between_retries);
    ++attempt;
  } while (attempt < max_retries);
  print("wait_for_command is taking too long");
}

std::optional<Bytes> read_data(std::size_t num_bytes_to_read, std::size_t interface_number,
                               const ExtendedData& ext_data, std::size_t) {
  const auto addr = narrow<std::uint16_t>(data_register_for_interface(interface_number, ext_data),
                                          "data register over 16 bits");
  // One length byte comes before the register's contents.
  if (num_bytes_to_read >= kLongestRequest) fatal("a register read longer than a control request");
  const auto length = static_cast<std::uint16_t>(num_bytes_to_read + 1);
  if (!global_driver) return std::nullopt;
  return global_driver->usb_read(kVendorRead, kRegisterRead, addr, 0, length);
}

}  // namespace qm5
