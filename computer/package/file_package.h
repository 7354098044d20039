// The application's package as files beside the program.
#pragma once

#include "computer/package.h"

namespace qm5 {

/// Resources lie relative to the executable: in ../share/qm5-updater, on macOS in the bundle's
/// Resources. Needs Qt's application object for that. Any thread.
class FilePackage : public Package {
 public:
  std::optional<std::string> pathForResource(std::string_view name,
                                             std::string_view extension) override;
  FileContents readFile(const std::string& path) override;
};

}  // namespace qm5
