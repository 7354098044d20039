// The files that the application brings along, and reading files whole.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "app_shell/toolkit.h"

namespace qm5 {

/// The path of the resource `name`.`extension`, of whatever kind of file it is; empty when
/// there is none. Resources lie relative to the executable: in ../share/qm5-updater, on
/// macOS in the bundle's Resources. Needs the application object. Any thread.
std::optional<std::string> resourcePath(std::string_view name, std::string_view extension);

/// The contents of a regular file. Anything else (a directory, a FIFO) is an error at
/// once. Errors carry the system's own text. Any thread.
FileContents readRegularFile(const std::string& path);

}  // namespace qm5
