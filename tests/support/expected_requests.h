// The requests of a whole update, made from the image alone.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "platform/bytes.h"
#include "tools/firmware_image.h"
#include "transcript.h"

namespace qm5::test {

// One request as text, for comparison: setup and data sent.
inline std::string requestText(unsigned type, unsigned request, unsigned value, unsigned index,
                               unsigned length, const Bytes& sent) {
  std::string text;
  for (const unsigned number : {type, request, value, index, length})
    text.append(std::to_string(number)).append(" ");
  for (const auto byte : sent) text.append(std::to_string(byte)).append(",");
  return text;
}

// What must go over the wire for an image, with a device that is ready at the first poll.
class ExpectedRequests {
 public:
  explicit ExpectedRequests(const Bytes& image) {
    read(0x06, 9);
    task("SFWi", {}, 7);
    const Bytes flash = flashContents(Bytes(image.begin() + 772, image.end()));
    Bytes previous(64, 0xFF);
    for (std::size_t at = 0; at < flash.size(); at += 64) {
      const Bytes block = slice(flash, at, 64);
      task("SFWd", block == previous ? slice(block, 0, 4) : block, 2);
      previous = block;
    }
    for (const std::size_t region : {388U, 4U})
      for (std::size_t at = region; at < region + 384; at += 64)
        task("SFWs", slice(image, at, 64), 11);
  }
  Lines lines;

 private:
  static Bytes slice(const Bytes& bytes, std::size_t at, std::size_t size) {
    const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
    return {first, first + static_cast<std::ptrdiff_t>(std::min(size, bytes.size() - at))};
  }
  void read(unsigned address, unsigned length) {
    lines.push_back(requestText(0xC0, 0xFE, address, 0, length, {}));
  }
  void write(unsigned address, const Bytes& data) {
    for (std::size_t at = 0; at < data.size(); at += 8) {
      const Bytes chunk = slice(data, at, 8);
      lines.push_back(requestText(0x40, 0xFD, address,
                                  at == 0 ? static_cast<unsigned>(data.size()) : 0,
                                  static_cast<unsigned>(chunk.size()), chunk));
    }
  }
  void task(std::string_view command, const Bytes& data, unsigned reply_length) {
    write(0x1F, data);
    write(0x1E, Bytes(command.begin(), command.end()));
    read(0x1E, 5);
    read(0x1F, reply_length);
  }
};

}  // namespace qm5::test
