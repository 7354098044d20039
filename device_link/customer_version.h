// Reads the customer version: the version of the firmware that the QM5 runs.
#pragma once

#include <optional>
#include <string>

namespace qm5 {

/// Reads the customer version with one request through `global_driver`. Returns the little-endian
/// number in the first two bytes of the reply as four upper-case hexadecimal digits, such as
/// "4201"; empty when there is no link, no device, or the request failed. Fatal when the reply has
/// fewer than two bytes. Blocks; update job only.
std::optional<std::string> read_customer_version();

}  // namespace qm5
