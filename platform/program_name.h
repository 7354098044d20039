// The name under which the process speaks of itself.
#pragma once

namespace qm5 {

/// Stands before the reason of an end on standard error, and is the identity of the entries in the
/// system log. Any thread.
const char* programName();

/// `name` lives as long as the process; "qm5-updater" when it was not set. Before the first line is
/// written.
void setProgramName(const char* name);

}  // namespace qm5
