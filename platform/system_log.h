// System-log lines: the few diagnostics that outlive the terminal.
// Production: syslog, with the name of the program as identity, and standard error.
// Tests set a sink of their own.
#pragma once

#include "platform/console.h"

namespace qm5 {

/// Has `line` written as one entry of the system log, and to standard error. Returns at once, as
/// print() does. Any thread.
void log(std::string_view line);

/// Sends the lines to `sink` instead; an empty sink restores the system log.
/// Returns once no thread is inside the sink that was set before.
void setSystemLog(LineSink sink);

}  // namespace qm5
