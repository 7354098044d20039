// The vendor requests by which the QM5 gives access to its registers; wValue is the register.
#pragma once

#include <cstdint>

namespace qm5 {

inline constexpr std::uint8_t kVendorWrite = 0x40;  ///< bmRequestType: to the device
inline constexpr std::uint8_t kVendorRead = 0xC0;   ///< bmRequestType: from the device
inline constexpr std::uint8_t kRegisterWrite = 0xFD;
inline constexpr std::uint8_t kRegisterRead = 0xFE;

}  // namespace qm5
