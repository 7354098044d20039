// Numbers as text. Independent of the user's locale: a percentage has a decimal point everywhere.
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qm5 {

/// Format "%X": upper-case hexadecimal, no leading zeros.
std::string upperHex(std::size_t value);
/// Format "%02X": two upper-case hexadecimal digits.
std::string upperHexByte(std::uint8_t value);
/// Format "%02x": two lower-case hexadecimal digits.
std::string lowerHexByte(std::uint8_t value);
/// Format "%.1f", always with a point.
std::string oneDecimal(double value);

}  // namespace qm5
