#include "simulator/command/trace.h"

#include <cstdint>
#include <string_view>

#include "platform/text.h"

namespace qm5 {
namespace {

std::string_view statusName(ControlStatus status) {
  switch (status) {
    case ControlStatus::ok:
      return "ok";
    case ControlStatus::stall:
      return "stall";
    case ControlStatus::pending:
      return "pending";
    case ControlStatus::gone:
      break;
  }
  return "gone";
}

/// A time in seconds with six decimals, whatever the locale.
std::string seconds(std::chrono::microseconds time) {
  const std::int64_t count = time.count();
  const std::string fraction = std::to_string(count % 1'000'000);
  return std::to_string(count / 1'000'000) + "." + std::string(6 - fraction.size(), '0') + fraction;
}

std::string field(std::string_view name, unsigned int value) {
  return ",\"" + std::string(name) + "\":" + std::to_string(value);
}

std::string textField(std::string_view name, std::string_view value) {
  return ",\"" + std::string(name) + "\":\"" + std::string(value) + "\"";
}

}  // namespace

std::string traceLine(const RequestRecord& request, std::chrono::steady_clock::time_point start) {
  const auto time = std::chrono::duration_cast<std::chrono::microseconds>(request.time - start);
  std::string data;
  for (const std::uint8_t byte : request.data) data += lowerHexByte(byte);
  return "{\"t\":" + seconds(time) + field("bmRequestType", request.setup.bmRequestType) +
         field("bRequest", request.setup.bRequest) + field("wValue", request.setup.wValue) +
         field("wIndex", request.setup.wIndex) + field("wLength", request.setup.wLength) +
         textField("data", data) + textField("status", statusName(request.status)) + "}";
}

}  // namespace qm5
