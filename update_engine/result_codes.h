// The result codes of the firmware-update tasks. Pure; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace qm5 {

/// The codes that have a name. A reply's 4-bit code may also be one without a name.
enum class SFWdReturnCode : std::size_t {
  SUCCESS = 0x0,
  FAIL_FLASH_ERASE_WRITE_ERROR = 0x4,
  FAIL_SFWI_NOT_RUN_FIRST = 0x6,
  FAIL_TOO_MUCH_DATA = 0x7,
  FAIL_ACE_ID_NOT_IN_HEADER = 0x8,
  FAIL_BINARY_TOO_LARGE = 0x9,
  FAIL_DEVICE_ID_MISMATCH = 0xA,
  FAIL_FLASH_ERROR_READ_ONLY = 0xD,
  FAIL_UNKNOWN_ERROR = 0xF,
};

/// The code with that raw value; empty for a number without a name.
std::optional<SFWdReturnCode> SFWdReturnCodeFromRawValue(std::size_t rawValue);

constexpr std::size_t rawValue(SFWdReturnCode code) {
  return static_cast<std::size_t>(code);
}

/// The name of the enumerator, as messages show it.
std::string_view textForm(SFWdReturnCode code);

}  // namespace qm5
