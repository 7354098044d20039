// The control requests that must go over the wire: of a register write, of a task, and of a whole
// update of an image. Written without the product's code, so that tests can compare the two.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "firmware_image/firmware_image.h"
#include "simulator/device/control_request.h"

namespace qm5::test {

struct WireRequest {
  ControlSetup setup;
  Bytes sent;
};
using WireRequests = std::vector<WireRequest>;

/// One line of text, so that tests can compare requests and show the difference.
inline std::string describe(const WireRequest& request) {
  const auto& [type, code, value, index, length] = request.setup;
  std::string text;
  for (const int number : {+type, +code, +value, +index, +length})
    text.append(std::to_string(number)).append(" ");
  for (const auto byte : request.sent) text.append(std::to_string(byte)).append(",");
  return text;
}

inline Bytes slice(ByteView bytes, std::size_t at, std::size_t size) {
  const ByteView part = bytes.subspan(at, std::min(size, bytes.size() - at));
  return {part.begin(), part.end()};
}

inline WireRequest registerRead(std::uint16_t address, std::uint16_t length) {
  return {{0xC0, 0xFE, address, 0, length}, {}};
}

/// At most `limit` bytes per request; the first carries the total length in wIndex.
inline WireRequests registerWrite(std::uint16_t address, ByteView data, std::size_t limit = 8) {
  WireRequests requests;
  for (std::size_t at = 0; at < data.size(); at += limit) {
    const Bytes chunk = slice(data, at, limit);
    const auto total = static_cast<std::uint16_t>(at == 0 ? data.size() : 0);
    const auto length = static_cast<std::uint16_t>(chunk.size());
    requests.push_back({{0x40, 0xFD, address, total, length}, chunk});
  }
  return requests;
}

/// A task that has ended at the first poll.
inline WireRequests taskRequests(std::string_view command, ByteView data) {
  WireRequests requests = registerWrite(0x1F, data);
  const WireRequests start = registerWrite(0x1E, Bytes(command.begin(), command.end()));
  requests.insert(requests.end(), start.begin(), start.end());
  requests.push_back(registerRead(0x1E, 5));
  requests.push_back(registerRead(0x1F, command == "SFWi" ? 7 : command == "SFWd" ? 2 : 11));
  return requests;
}

/// The whole update, from the version read to the last key block's reply.
inline WireRequests updateRequests(ByteView image) {
  WireRequests requests = {registerRead(0x06, 9)};
  const auto task = [&](std::string_view command, ByteView data) {
    const WireRequests more = taskRequests(command, data);
    requests.insert(requests.end(), more.begin(), more.end());
  };
  task("SFWi", {});
  const Bytes flash = flashContents(image.subspan(kImagePayloadStart));
  Bytes previous(64, 0xFF);
  for (std::size_t at = 0; at < flash.size(); at += 64) {
    const Bytes block = slice(flash, at, 64);
    task("SFWd", slice(block, 0, block == previous ? 4 : 64));
    previous = block;
  }
  for (const std::size_t region : {kImageSignatureStart, kImagePublicKeyStart})
    for (std::size_t at = 0; at < 384; at += 64) task("SFWs", slice(image, region + at, 64));
  return requests;
}

}  // namespace qm5::test
