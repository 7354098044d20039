// The input is the packaged image. After a success the QM5 must hold its payload and have accepted
// its signature.
#include "firmware_image/firmware_image.h"
#include "fuzz_target.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qm5::test;
  const qm5::Bytes image(data, data + size);
  // With a payload of less than one block the percentage divides by zero: fatal, by design.
  const qm5::Bytes magic = {0x01, 0x00, 0xEF, 0xAC};
  if (size > 772 && size < 772 + 64 && std::equal(magic.begin(), magic.end(), data)) return 0;
  WholeApp& app = fuzzedApp();
  app.application.image = image;
  app.start();
  qm5::FaultyQm5 device;
  const Outcome outcome = updateGoodDevice(device);
  if (outcome.title == "Flash firmware error" && !outcome.lines.empty()) return 0;
  const bool succeeded = outcome.title == "Firmware update successful!" && outcome.lines.empty();
  if (!succeeded || !device.signatureHolds() ||
      device.flash() != qm5::flashContents(qm5::ByteView(image).subspan(772)))
    qm5::fatal("a wrong outcome");
  return 0;
}
