// A record of the requests to the QM5, as lines of JSON.
#pragma once

#include <chrono>
#include <string>

#include "simulator/device/faulty_qm5.h"

namespace qm5 {

/// One request as a JSON object on one line, without a line feed: t (seconds since `start`),
/// bmRequestType, bRequest, wValue, wIndex, wLength, data (sent or received, lower-case
/// hexadecimal), status ("ok", "stall", "pending" or "gone").
std::string traceLine(const RequestRecord& request, std::chrono::steady_clock::time_point start);

}  // namespace qm5
