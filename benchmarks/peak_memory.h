// How much memory a process has used at most.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

namespace qm5 {

/// The peak of the resident set in kilobytes, of the process with that number or of "self";
/// 0 when there is no such process.
inline long peakMemory(const std::string& process) {
  std::ifstream status("/proc/" + process + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::atol(line.c_str() + 6);
  }
  return 0;
}

}  // namespace qm5
