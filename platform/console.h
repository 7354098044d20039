// Console lines: the plain diagnostics on standard output.
// Production: standard output. Tests set a sink of their own.
#pragma once

#include <functional>
#include <string_view>

namespace qm5 {

using LineSink = std::function<void(std::string_view line)>;

/// Has `line` and a line feed written to standard output, and returns at once: a reader who stops
/// reading delays nobody (see platform/line_writer.h). Any thread; lines never mix.
void print(std::string_view line);

/// Sends the lines to `sink` instead; an empty sink restores standard output.
/// Returns once no thread is inside the sink that was set before.
void setConsole(LineSink sink);

}  // namespace qm5
