#include "platform/text.h"

#include <array>
#include <charconv>
#include <string_view>

namespace qm5 {
namespace {

std::string hexByte(std::uint8_t value, std::string_view digits) {
  return {digits[value >> 4], digits[value & 0x0F]};
}

constexpr std::string_view kUpper = "0123456789ABCDEF";
constexpr std::string_view kLower = "0123456789abcdef";

}  // namespace

std::string upperHex(std::size_t value) {
  std::string text;
  do {
    text.insert(text.begin(), kUpper[value & 0x0F]);
    value >>= 4;
  } while (value != 0);
  return text;
}

std::string upperHexByte(std::uint8_t value) {
  return hexByte(value, kUpper);
}

std::string lowerHexByte(std::uint8_t value) {
  return hexByte(value, kLower);
}

std::string oneDecimal(double value) {
  // The longest double in this form has 309 digits before the point.
  std::array<char, 320> text{};
  const auto [end, error] =
      std::to_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed, 1);
  return {text.data(), end};
}

}  // namespace qm5
