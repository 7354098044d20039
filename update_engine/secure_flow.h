// A whole firmware update of the QM5 from a secure image: payload, signature, public key.
#pragma once

#include <string_view>

#include "device_link/driver.h"
#include "platform/bytes.h"
#include "update_engine/progress.h"

namespace qm5 {

/// Runs the update and returns whether every step succeeded; the reason for a failure goes
/// to the console. The public key is sent only for the padding "pss". Nothing is retried
/// and nothing cleaned up after a failure. `host` is not used: the tasks go through
/// `global_driver`. Nor is `auto_reboot`: the device restarts when its owner power-cycles
/// it. Blocks, on the update job, for up to 300 s a task. Fatal for a payload of 1 to 63
/// bytes with a callback.
bool secure_update_binary(Driver& host, ByteView binData, const ProgressCallback& progress,
                          std::string_view signature_padding, bool auto_reboot);

}  // namespace qm5
