// The vendor control requests that access the QM5's registers. wValue is the register's address.
// docs/protocol.md describes them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qm5 {

inline constexpr std::uint8_t kVendorWrite = 0x40;    ///< bmRequestType: to the device
inline constexpr std::uint8_t kVendorRead = 0xC0;     ///< bmRequestType: from the device
inline constexpr std::uint8_t kRegisterWrite = 0xFD;  ///< bRequest
inline constexpr std::uint8_t kRegisterRead = 0xFE;   ///< bRequest

/// The device takes no more bytes than this in one register-write request.
inline constexpr std::size_t kBytesPerRegisterWrite = 8;

}  // namespace qm5
