#include "computer/process/process_state.h"

#ifdef __linux__

#include <signal.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace qm5 {
namespace {

std::string procFile(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

/// The value of a line "NAME:\tVALUE" of the process's status; empty when there is none.
std::string statusOf(pid_t process, const std::string& name) {
  std::ifstream status(procFile(process, "status"));
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
  }
  return {};
}

bool hasPendingKill(const std::string& hexadecimal_signals) {
  constexpr std::uint64_t kKill = std::uint64_t{1} << (SIGKILL - 1);
  return (std::strtoull(hexadecimal_signals.c_str(), nullptr, 16) & kKill) != 0;
}

}  // namespace

std::optional<pid_t> lockHolder(int descriptor) {
  struct stat file {};
  if (::fstat(descriptor, &file) != 0) return std::nullopt;
  char identity[64];
  std::snprintf(identity, sizeof identity, "%02x:%02x:%lu", major(file.st_dev), minor(file.st_dev),
                static_cast<unsigned long>(file.st_ino));
  // "1: FLOCK  ADVISORY  WRITE 1234 00:16:10 0 EOF"; one that waits has "->" in its second place.
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, mode, access, inode;
    pid_t process = 0;
    words >> number >> kind >> mode >> access >> process >> inode;
    if (kind == "FLOCK" && access == "WRITE" && inode == identity && process > 0) return process;
  }
  return std::nullopt;
}

std::string describeProcess(pid_t process) {
  std::string name = statusOf(process, "Name");
  // Where it has gone, another one has its descriptor, as the processes of qm5-update --all do.
  if (name.empty()) return "A program started by process " + std::to_string(process);
  return name.append(" (process ").append(std::to_string(process)).append(")");
}

bool isDying(pid_t process) {
  const std::string state = statusOf(process, "State");
  return state.empty() || state[0] == 'Z' || state[0] == 'X' ||
         hasPendingKill(statusOf(process, "SigPnd")) || hasPendingKill(statusOf(process, "ShdPnd"));
}

bool isStopped(pid_t process) {
  const std::string state = statusOf(process, "State");
  return !state.empty() && (state[0] == 'T' || state[0] == 't');
}

}  // namespace qm5

#endif
