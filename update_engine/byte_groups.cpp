#include "update_engine/byte_groups.h"

#include <algorithm>

#include "platform/fatal.h"
#include "platform/text.h"

namespace qm5 {

std::vector<Bytes> grouper(ByteView data, std::uint8_t pad, std::ptrdiff_t size) {
  if (size == 0) fatal("a group size of 0");
  std::vector<Bytes> groups;
  if (size < 0) return groups;
  const auto stride = static_cast<std::size_t>(size);
  groups.reserve(data.size() / stride + 1);
  for (; !data.empty(); data = data.subspan(std::min(stride, data.size()))) {
    const ByteView part = data.first(std::min(stride, data.size()));
    Bytes& group = groups.emplace_back(part.begin(), part.end());
    group.resize(stride, pad);
  }
  return groups;
}

std::string hexEncodedString(ByteView data) {
  std::string text;
  for (const std::uint8_t byte : data) text += lowerHexByte(byte);
  return text;
}

}  // namespace qm5
