#include "update_engine/image_layout.h"

#include <string>

#include "platform/console.h"

namespace qm5 {
namespace {

bool hasHeader(ByteView image) {
  for (std::size_t i = 0; i < secureUpdateBinaryHeader.size(); ++i) {
    if (secureUpdateBinaryHeader[i] != image[i]) return false;
  }
  return true;
}

Bytes copy(ByteView image, std::size_t start, std::size_t end) {
  const ByteView region = image.subspan(start, end - start);
  return {region.begin(), region.end()};
}

}  // namespace

bool validate_image(ByteView image) {
  if (image.size() < kMinimumImageLength) {
    print("Invalid binary file. Binary file length:" + std::to_string(image.size()));
    return false;
  }
  if (!hasHeader(image)) {
    print("Invalid binary header.");
    return false;
  }
  return true;
}

ImageRegions cut_image(ByteView image) {
  return {.public_key = copy(image, kPublicKeyStart, kPublicKeyEnd),
          .signature = copy(image, kSignatureStart, kSignatureEnd),
          .payload = image.subspan(kPayloadStart)};
}

}  // namespace qm5
