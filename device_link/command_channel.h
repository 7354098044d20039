// The register and 4CC command channel of the QM5's controller, over vendor control requests
// through `global_driver`. docs/protocol.md describes it.
//
// A register write is a sequence of requests, a register read is one request. A command is four
// characters written to a command register, which the device clears when it has finished; the
// command's data and its reply pass through a data register. All functions block, and only the
// update job calls them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/bytes.h"

namespace qm5 {

/// Extended data of a command. The commands of the firmware update have none.
using ExtendedData = std::optional<ByteView>;

/// The address of a host interface's data register. Only whether `ext_data` is present counts. For
/// an interface that has no such register it prints a line and returns 0x1E. Sends nothing.
std::size_t data_register_for_interface(std::size_t interface_number, const ExtendedData& ext_data);

/// Writes `data` to a register in requests of at most 8 bytes. The first request carries the total
/// length in wIndex, the others 0. Returns the count of bytes handed over: data.size(), or 0 when
/// `data` is empty or there is no link. A request that fails is not reported. Fatal when a device
/// is attached and the address or the length does not fit into 16 bits.
std::size_t usbep_write(std::size_t register_address, ByteView data);

/// Writes the extended data and the data, where present, then the command that uses them. A failure
/// is not reported.
void write_4cc(std::string_view command, const std::optional<ByteView>& data,
               std::size_t interface_number, const ExtendedData& ext_data);

/// Polls the interface's command register until the device has cleared it. Sleeps for
/// `delay_between_retries` seconds after each poll that finds it busy or fails. After `max_retries`
/// polls (at least one) it prints a line and returns; the caller does not learn which it was.
void wait_for_command(std::size_t max_retries, double delay_between_retries,
                      std::size_t interface_number);

/// Reads the interface's data register in one request. Returns `num_bytes_to_read` + 1 bytes: the
/// device's length byte, then the register's bytes; empty when there is no device or the request
/// failed. Fatal when `num_bytes_to_read` is over 65,534. The last argument has no effect.
std::optional<Bytes> read_data(std::size_t num_bytes_to_read, std::size_t interface_number,
                               const ExtendedData& ext_data, std::size_t = 0);

}  // namespace qm5
