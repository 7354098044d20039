// The application's package: the files that are installed together with the program.
// Production: computer/package/. Tests: tests/support/scripted_application.h.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "platform/bytes.h"
#include "platform/port.h"

namespace qm5 {

/// Why a file can't be read, in the operating system's own words.
struct FileError {
  std::string description;
};
/// The bytes of a whole file, or the reason why there are none.
using FileContents = std::variant<Bytes, FileError>;

/// Any thread.
class Package : public PortObject {
 public:
  virtual ~Package() = default;

  /// The path of the resource `name`.`extension`; empty when the package has no such file.
  /// Whatever kind of file is there is found: readFile() says whether it can be read.
  virtual std::optional<std::string> pathForResource(std::string_view name,
                                                     std::string_view extension) = 0;
  /// Reads a whole file into memory. A FileError when there is no such file, when it is not a
  /// regular file, when reading fails, and when the file does not fit into memory. Waits for
  /// nothing but a disk.
  virtual FileContents readFile(const std::string& path) = 0;
};

/// The package that the process uses; fatal when none has been set. Any thread.
Package& applicationPackage();
/// Sets it, before the first controller is made. `package` stays the caller's.
void setApplicationPackage(Package* package);

}  // namespace qm5
