// What a QM5 says of itself on every bus, as USB's descriptors have it.
#pragma once

#include <array>
#include <cstdint>

namespace qm5 {

inline constexpr std::uint8_t kProductString = 1;       // the number of the product's name
inline constexpr std::uint8_t kConfigurationValue = 1;  // of its only configuration

/// Vendor 0x0451, product 0xACE1, USB 2.0 with packets of 64 bytes; the only string is the
/// product's name.
inline constexpr std::array<std::uint8_t, 18> kDeviceDescriptor = {
    18,   1,    0x00, 0x02, 0xFF, 0x00, 0x00,           64, 0x51,
    0x04, 0xE1, 0xAC, 0x00, 0x01, 0,    kProductString, 0,  1};

/// The configuration, followed by its interface, which has no endpoints of its own. Powered by the
/// bus, at most 100 mA.
inline constexpr std::array<std::uint8_t, 18> kConfigurationDescriptor = {
    9, 2, 18, 0, 1, kConfigurationValue, 0, 0x80, 50, 9, 4, 0, 0, 0, 0xFF, 0, 0, 0};

}  // namespace qm5
