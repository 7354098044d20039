// What a start does that finds another process on the same USB bus.
#pragma once

#include "computer/process/single_instance.h"

namespace qm5 {

/// Says who has the bus, in the log and in a window of its own, and returns once that has been
/// read. Says nothing for an updater on this display, which comes to the front instead. No window
/// where the process has no display. Needs the application's adapter. Main thread.
void showAlreadyRunning(int argc, char** argv, const BusInUse& in_use);

}  // namespace qm5
