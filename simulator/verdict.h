// What became of a QM5, in one line.
#pragma once

#include <optional>
#include <string>

#include "simulator/faulty_qm5.h"

namespace qm5 {

struct Verdict {
  std::string line;
  bool good;  ///< flash and signature are right, and there was no breach
};

/// Judges a device after its program has ended. `expected_flash` is empty when nothing
/// tells what the flash is to hold: then the signature alone vouches for it.
Verdict judge(const FaultyQm5& device, const std::optional<Bytes>& expected_flash);

}  // namespace qm5
