#include "update_engine/result_codes.h"

#include "platform/fatal.h"

namespace qm5 {

std::optional<SFWdReturnCode> SFWdReturnCodeFromRawValue(std::size_t rawValue) {
  switch (rawValue) {
    case 0x0:
    case 0x4:
    case 0x6:
    case 0x7:
    case 0x8:
    case 0x9:
    case 0xA:
    case 0xD:
    case 0xF:
      return static_cast<SFWdReturnCode>(rawValue);
    default:
      return std::nullopt;
  }
}

std::string_view textForm(SFWdReturnCode code) {
  switch (code) {
    case SFWdReturnCode::SUCCESS:
      return "SUCCESS";
    case SFWdReturnCode::FAIL_FLASH_ERASE_WRITE_ERROR:
      return "FAIL_FLASH_ERASE_WRITE_ERROR";
    case SFWdReturnCode::FAIL_SFWI_NOT_RUN_FIRST:
      return "FAIL_SFWI_NOT_RUN_FIRST";
    case SFWdReturnCode::FAIL_TOO_MUCH_DATA:
      return "FAIL_TOO_MUCH_DATA";
    case SFWdReturnCode::FAIL_ACE_ID_NOT_IN_HEADER:
      return "FAIL_ACE_ID_NOT_IN_HEADER";
    case SFWdReturnCode::FAIL_BINARY_TOO_LARGE:
      return "FAIL_BINARY_TOO_LARGE";
    case SFWdReturnCode::FAIL_DEVICE_ID_MISMATCH:
      return "FAIL_DEVICE_ID_MISMATCH";
    case SFWdReturnCode::FAIL_FLASH_ERROR_READ_ONLY:
      return "FAIL_FLASH_ERROR_READ_ONLY";
    case SFWdReturnCode::FAIL_UNKNOWN_ERROR:
      return "FAIL_UNKNOWN_ERROR";
  }
  fatal("a result code without a name");
}

}  // namespace qm5
