#include "platform/fatal.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "platform/line_writer.h"
#include "platform/program_name.h"

namespace qm5 {

void endProcess(int status) {
  flushLines();
  std::_Exit(status);
}

void fatal(std::string_view reason) {
  std::string line(programName());
  line.append(": fatal error: ").append(reason).push_back('\n');
  flushLines();
  // Not queued: the writer's thread may be the one that has failed.
  descriptorSink(STDERR_FILENO)(line, std::chrono::milliseconds(0));
  std::abort();
}

void cannotStart(std::string_view reason) {
  std::string line(programName());
  line.append(": can't start: ").append(reason);
  writeSystemLog(line);
  writeLine(StandardStream::error, line);
  endProcess(EXIT_FAILURE);
}

}  // namespace qm5
