#include "tests/simulator_script.h"

#include <algorithm>
#include <fstream>
#include <iterator>

#include "tools/firmware_image.h"

namespace qm5::script {

ControlResult read(const Port& port, std::uint16_t address, std::uint16_t length) {
  return port({0xC0, 0xFE, address, 0, length}, {});
}

ControlResult chunk(const Port& port, std::uint16_t address, std::uint16_t index, Bytes data) {
  return port({0x40, 0xFD, address, index, static_cast<std::uint16_t>(data.size())}, data);
}

void write(const Port& port, std::uint16_t address, const Bytes& data) {
  for (std::size_t at = 0; at < data.size(); at += 8) {
    const auto end = data.begin() + static_cast<std::ptrdiff_t>(std::min(at + 8, data.size()));
    const auto total = static_cast<std::uint16_t>(at == 0 ? data.size() : 0);
    chunk(port, address, total, Bytes(data.begin() + static_cast<std::ptrdiff_t>(at), end));
  }
}

Bytes runTask(const Port& port, std::string_view name, const Bytes& data, int polls) {
  write(port, 0x1F, data);
  write(port, 0x1E, bytes(name));
  for (int poll = 0; poll < polls; ++poll) {
    const ControlResult shown = read(port, 0x1E, 5);
    if (shown.data.size() == 5 && shown.data[1] == 0) break;
  }
  return read(port, 0x1F, kReplyBytes).data;
}

Bytes bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

int update(const Port& port, ByteView image) {
  const auto result = [&](std::string_view task, const Bytes& data) {
    const Bytes reply = runTask(port, task, data);
    return reply.size() < 2 ? -1 : reply[1] & 0x0F;
  };
  if (const int code = result("SFWi", {})) return code;
  Bytes previous(64, 0xFF);
  const Bytes flash = flashContents(image.subspan(kImagePayloadStart));
  for (auto at = flash.begin(); at != flash.end(); at += 64) {
    const Bytes block(at, at + 64);
    const Bytes sent = block == previous ? Bytes(at, at + 4) : block;
    if (const int code = result("SFWd", sent)) return code;
    previous = block;
  }
  for (const std::size_t region : {kImageSignatureStart, kImagePublicKeyStart}) {
    for (std::size_t at = region; at < region + 384; at += 64) {
      const ByteView block = image.subspan(at, 64);
      if (const int code = result("SFWs", Bytes(block.begin(), block.end()))) return code;
    }
  }
  return 0;
}

const Bytes& smallImage() {
  static const Bytes image = [] {
    Bytes payload(64, 0xFF);
    payload.insert(payload.end(), 128, 0x5A);
    payload.insert(payload.end(), 10, 0x33);
    return buildImage(payload);
  }();
  return image;
}

Port portTo(libusb_device_handle* handle, unsigned int timeout_ms) {
  return [=](const ControlSetup& setup, const Bytes& data) -> ControlResult {
    Bytes buffer = isRead(setup) ? Bytes(setup.wLength) : data;
    const int moved =
        libusb_control_transfer(handle, setup.bmRequestType, setup.bRequest, setup.wValue,
                                setup.wIndex, buffer.data(), setup.wLength, timeout_ms);
    if (moved == LIBUSB_ERROR_PIPE) return {ControlStatus::stall};
    if (moved == LIBUSB_ERROR_TIMEOUT) return {ControlStatus::pending};
    if (moved < 0) return {ControlStatus::gone};
    buffer.resize(isRead(setup) ? static_cast<std::size_t>(moved) : 0);
    return {ControlStatus::ok, buffer};
  };
}

int updateAttached(const char* image_path) {
  std::ifstream file(image_path, std::ios::binary);
  const Bytes image{std::istreambuf_iterator<char>(file), {}};
  libusb_context* context = nullptr;
  if (libusb_init(&context) != 0) return 10;
  libusb_device_handle* const handle = libusb_open_device_with_vid_pid(context, 0x0451, 0xACE1);
  if (handle == nullptr) return 11;
  const int code = update(portTo(handle), image);
  libusb_close(handle);
  libusb_exit(context);
  return code;
}

}  // namespace qm5::script
