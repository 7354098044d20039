// What the kernel tells of another process, in /proc.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace qm5 {

/// The process that holds the exclusive flock() on the file or folder behind `descriptor`; empty
/// when nobody does or when the kernel does not show who.
std::optional<pid_t> lockHolder(int descriptor);

/// "NAME (process 1234)"; of one that has gone, something that it has started.
std::string describeProcess(pid_t process);

/// It has been killed or has ended, and its files are about to be closed.
bool isDying(pid_t process);

/// A stop signal or a debugger holds it.
bool isStopped(pid_t process);

}  // namespace qm5
