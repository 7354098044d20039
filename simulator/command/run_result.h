// The state of a QM5 and the conduct of its host after a run, in one line.
#pragma once

#include <optional>
#include <string>

#include "simulator/device/faulty_qm5.h"

namespace qm5 {

struct RunResult {
  std::string line;
  bool good;  ///< flash and signature are right, and there was neither breach nor deviation
};

/// To be called when no request can come any more. Without `expected_flash` the contents of the
/// flash are checked by the signature alone.
RunResult evaluateRun(const FaultyQm5& device, const std::optional<Bytes>& expected_flash);

}  // namespace qm5
