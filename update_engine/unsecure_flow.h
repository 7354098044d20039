// Writes a payload into the QM5's flash: one task that opens the update, then one a
// 64-byte chunk.
#pragma once

#include "device_link/driver.h"
#include "platform/bytes.h"
#include "update_engine/progress.h"

namespace qm5 {

/// Writes `update_data`, of any length, filled up with 0xFF to whole chunks. A chunk that
/// fails is tried once more after 0.1 s; then the flow ends and the device stays as the
/// last task left it. Returns whether every chunk was taken; the reason for a failure goes
/// to the console. `host` is not used: the tasks go through `global_driver`. Blocks, on the
/// update job. Fatal with a callback and 1 to 63 bytes, which have no percentage.
bool common_update(Driver& host, ByteView update_data, const ProgressCallback& progress);

}  // namespace qm5
