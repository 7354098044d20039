// The QM5's host interface as the software QM5 knows it: registers, tasks, sizes.
//
// Deliberately not shared with the updater's own constants: the software QM5 tells whether the
// updater is right, so a wrong number there must not be repeated here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/text.h"

namespace qm5 {

inline constexpr std::uint8_t kVendorWrite = 0x40;  // host to device, vendor, device
inline constexpr std::uint8_t kVendorRead = 0xC0;   // device to host, vendor, device
inline constexpr std::uint8_t kRegisterWrite = 0xFD;
inline constexpr std::uint8_t kRegisterRead = 0xFE;

inline constexpr std::uint16_t kVersionRegister = 0x06;
inline constexpr std::uint16_t kCommandRegister = 0x1E;
inline constexpr std::uint16_t kData3Register = 0x1F;

inline constexpr std::size_t kVersionBytes = 9;  // this register has no length byte
inline constexpr std::size_t kCommandBytes = 4;
inline constexpr std::size_t kDataRegisterBytes = 64;
inline constexpr std::size_t kChunkLimit = 8;  // data of one write request

inline constexpr std::size_t kBlockBytes = 64;  // data of one SFWd or SFWs
inline constexpr std::size_t kRepeatBytes = 4;  // an SFWd of this size repeats the last block
inline constexpr std::size_t kSecureRegionBytes = 384;  // of the signature, and of the key
inline constexpr std::size_t kSecureBytes = 2 * kSecureRegionBytes;
inline constexpr std::uint8_t kErased = 0xFF;  // what erased flash reads

inline bool isTask(std::string_view name) {
  return name == "SFWi" || name == "SFWd" || name == "SFWs";
}

/// A register in a message.
inline std::string registerName(std::uint16_t address) {
  return "register 0x" + upperHex(address);
}

}  // namespace qm5
