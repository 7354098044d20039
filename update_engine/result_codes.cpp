#include "update_engine/result_codes.h"

#include <algorithm>
#include <array>
#include <utility>

namespace qm5 {
namespace {

using enum SFWdReturnCode;

constexpr std::array<std::pair<SFWdReturnCode, std::string_view>, 9> kCodes = {{
    {SUCCESS, "SUCCESS"},
    {FAIL_FLASH_ERASE_WRITE_ERROR, "FAIL_FLASH_ERASE_WRITE_ERROR"},
    {FAIL_SFWI_NOT_RUN_FIRST, "FAIL_SFWI_NOT_RUN_FIRST"},
    {FAIL_TOO_MUCH_DATA, "FAIL_TOO_MUCH_DATA"},
    {FAIL_ACE_ID_NOT_IN_HEADER, "FAIL_ACE_ID_NOT_IN_HEADER"},
    {FAIL_BINARY_TOO_LARGE, "FAIL_BINARY_TOO_LARGE"},
    {FAIL_DEVICE_ID_MISMATCH, "FAIL_DEVICE_ID_MISMATCH"},
    {FAIL_FLASH_ERROR_READ_ONLY, "FAIL_FLASH_ERROR_READ_ONLY"},
    {FAIL_UNKNOWN_ERROR, "FAIL_UNKNOWN_ERROR"},
}};

constexpr auto find(SFWdReturnCode code) {
  return std::find_if(kCodes.begin(), kCodes.end(),
                      [code](const auto& entry) { return entry.first == code; });
}

}  // namespace

std::optional<SFWdReturnCode> SFWdReturnCodeFromRawValue(std::size_t rawValue) {
  const auto found = find(SFWdReturnCode{rawValue});
  if (found == kCodes.end()) return std::nullopt;
  return found->first;
}

std::string_view textForm(SFWdReturnCode code) {
  return find(code)->second;
}

}  // namespace qm5
