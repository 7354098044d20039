// What is on the bus, in words.
#pragma once

#include <string>

#include "device_link/device_presence.h"

namespace qm5 {

/// | the text                                  | while                                          |
/// |-------------------------------------------|------------------------------------------------|
/// | No QM5 is connected.                      | none is on the bus                             |
/// | A QM5 is connected.                       | one is, and the Driver has it                  |
/// | <n> QM5s are connected. An update goes to | several are, and the Driver has one: the last  |
/// |                                           | one announced                                  |
/// | …, but it came before the updater was     | the Driver has none: it did not listen yet     |
/// |   ready. …                                | when the last one was announced                |
/// | …, but the updater followed another one,  | the Driver has none: the last one announced    |
/// |   which has left. …                       | has left, another one is still there           |
/// | …, but you may not open it. …             | none could be opened, one for want of a right  |
/// | …, but it could not be opened. …          | none could be opened                           |
/// | <n> QM5s are connected, but none can be   | several are, and the Driver has none           |
/// |   used. …                                 |                                                |
///
/// Its lines are broken for a window of a fixed width. Any thread.
std::string describe(const DeviceState& state);

}  // namespace qm5
