// Writes a payload into the QM5's flash: one task that opens the update, then one task per 64-byte
// chunk.
#pragma once

#include "device_link/driver.h"
#include "platform/bytes.h"
#include "update_engine/progress.h"

namespace qm5 {

/// Writes `update_data`, of any length, filled up with 0xFF to whole chunks. A chunk that fails is
/// sent once more after 0.1 s; a second failure ends the flow and leaves the device as the last
/// task left it. Returns whether the device took every chunk; the reason for a failure goes to the
/// console. `host` is not used, as the tasks go through `global_driver`. Blocks; update job only.
/// Fatal with a callback and 1 to 63 bytes, for which no percentage can be computed.
bool common_update(Driver& host, ByteView update_data, const ProgressCallback& progress);

/// How many chunks that payload is: each is reported once, after the opening task.
std::size_t chunk_count(ByteView update_data);

}  // namespace qm5
