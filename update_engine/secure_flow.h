// A whole firmware update of the QM5 from a secure image: payload, signature, then public key.
#pragma once

#include <string_view>

#include "device_link/driver.h"
#include "platform/bytes.h"
#include "update_engine/progress.h"

namespace qm5 {

/// Runs the update and returns whether every step succeeded; the reason for a failure goes to the
/// console. The public key is sent only when `signature_padding` is "pss". A failure ends the flow
/// at once: no task is retried here, and none is sent to clean up. `host` is not used, as the tasks
/// go through `global_driver`; nor is `auto_reboot`, as the user restarts the device by a power
/// cycle. Blocks for up to 300 s per task; update job only. Fatal for a payload of 1 to 63 bytes
/// with a callback.
bool secure_update_binary(Driver& host, ByteView binData, const ProgressCallback& progress,
                          std::string_view signature_padding, bool auto_reboot);

}  // namespace qm5
