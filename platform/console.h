// Console lines: the plain diagnostics on standard output.
// Production: standard output. Tests set a sink of their own.
#pragma once

#include <functional>
#include <string_view>

namespace qm5 {

using LineSink = std::function<void(std::string_view line)>;

/// Writes `line` and a line feed to standard output, whole and flushed at once.
/// Any thread; lines never mix.
void print(std::string_view line);

/// Sends the lines to `sink` instead; an empty sink restores standard output.
/// Returns once no thread is inside the sink that was set before.
void setConsole(LineSink sink);

}  // namespace qm5
