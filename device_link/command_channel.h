// The register and 4CC command channel of the QM5's controller, over vendor control
// requests through `global_driver`.
//
// A register write is a sequence of small requests, a register read is one. A command is
// four characters written to a command register, which the device clears when it has
// finished; its data and its reply pass through a data register. All functions block and
// are called from the update job only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/bytes.h"

namespace qm5 {

/// Extended data of a command; those of the firmware update have none.
using ExtendedData = std::optional<ByteView>;

/// The data register of a host interface. Of `ext_data` only the presence counts. An
/// interface without one prints a line and gives 0x1E.
std::size_t data_register_for_interface(std::size_t interface_number, const ExtendedData& ext_data);

/// Writes `data` to a register in requests of at most 8 bytes. The first request carries
/// the total length in wIndex, the others 0. Returns the count of bytes handed over:
/// data.size(), or 0 when `data` is empty or there is no link. A request that the device
/// refuses is not reported.
std::size_t usbep_write(std::size_t register_address, ByteView data);

/// Writes the extended data and the data, where present, then the command that uses them.
void write_4cc(std::string_view command, const std::optional<ByteView>& data,
               std::size_t interface_number, const ExtendedData& ext_data);

/// Polls the interface's command register until the device has cleared it, or prints a
/// line after `max_retries` polls (at least one), each followed by a sleep of
/// `delay_between_retries` seconds. The caller can't tell which.
void wait_for_command(std::size_t max_retries, double delay_between_retries,
                      std::size_t interface_number);

/// Reads from the interface's data register. Returns `num_bytes_to_read` + 1 bytes: the
/// device's length byte, then the register's; empty when there is no device or the read
/// failed. Fatal when the count does not fit into 16 bits. The last argument has no effect.
std::optional<Bytes> read_data(std::size_t num_bytes_to_read, std::size_t interface_number,
                               const ExtendedData& ext_data, std::size_t = 0);

}  // namespace qm5
