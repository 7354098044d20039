// A host that knows just enough of the protocol to update a QM5, written independently of
// the updater's own layers.
#pragma once

#include <libusb.h>

#include <functional>
#include <string_view>

#include "simulator/control_request.h"

namespace qm5::script {

using Port = std::function<ControlResult(const ControlSetup&, const Bytes&)>;

/// What a task's reply says: the length byte, then the register's first bytes.
inline constexpr std::uint16_t kReplyBytes = 11;

ControlResult read(const Port& port, std::uint16_t address, std::uint16_t length);
/// One chunk as it goes over the wire.
ControlResult chunk(const Port& port, std::uint16_t address, std::uint16_t index, Bytes data);
/// A whole register, in chunks of 8.
void write(const Port& port, std::uint16_t address, const Bytes& data);
/// Runs a task to its end and returns its reply; polls `polls` times at most.
Bytes runTask(const Port& port, std::string_view name, const Bytes& data, int polls = 20);
Bytes bytes(std::string_view text);
/// The result code of a whole update: that of the first task that failed, or 0.
int update(const Port& port, ByteView image);

/// An image that takes every branch: a first block of 0xFF, a whole one, a repeated one,
/// a padded last one. The same one throughout the process.
const Bytes& smallImage();

/// A port to a device that libusb has opened. A time-out counts as no answer.
Port portTo(libusb_device_handle* handle, unsigned int timeout_ms = 2000);
/// Updates the attached QM5 with the image; returns the exit status of a program.
int updateAttached(const char* image_path);

}  // namespace qm5::script
