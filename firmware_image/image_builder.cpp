// qm5-image-builder: writes a development image, which a build packages when it is not given the
// product's own firmware image.
#include <charconv>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "firmware_image/firmware_image.h"

namespace {

constexpr std::size_t kDefaultPayload = std::size_t{64} * 1024;
constexpr const char* kUsage = "usage: qm5-image-builder [--payload-size BYTES] OUTPUT\n";

struct Arguments {
  std::size_t payload_size = kDefaultPayload;
  std::string output;
};

std::optional<Arguments> parse(const std::vector<std::string_view>& words) {
  Arguments arguments;
  std::size_t next = 0;
  if (words.size() == 3 && words[0] == "--payload-size") {
    const char* const end = words[1].data() + words[1].size();
    const auto [stop, error] = std::from_chars(words[1].data(), end, arguments.payload_size);
    if (error != std::errc() || stop != end) return std::nullopt;
    next = 2;
  }
  if (words.size() != next + 1 || words[next].starts_with('-')) return std::nullopt;
  arguments.output = words[next];
  return arguments;
}

}  // namespace

int main(int argc, char** argv) {
  const auto arguments = parse({argv + 1, argv + argc});
  if (!arguments) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const qm5::Bytes image = qm5::buildImage(qm5::developmentPayload(arguments->payload_size));
  std::ofstream file(arguments->output, std::ios::binary);
  for (const std::uint8_t byte : image) file.put(static_cast<char>(byte));
  file.close();
  if (file) return 0;
  std::fprintf(stderr, "qm5-image-builder: %s can't be written\n", arguments->output.c_str());
  return 1;
}
