#include "platform/program_name.h"

#include <atomic>

namespace qm5 {
namespace {

std::atomic<const char*> program_name = "qm5-updater";

}  // namespace

const char* programName() {
  return program_name;
}

void setProgramName(const char* name) {
  program_name = name;
}

}  // namespace qm5
