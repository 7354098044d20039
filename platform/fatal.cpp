#include "platform/fatal.h"

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "platform/line_writer.h"

namespace qm5 {

void fatal(std::string_view reason) {
  std::string line = "qm5-updater: fatal error: ";
  line.append(reason).push_back('\n');
  flushLines();
  // Not queued: the writer's thread may be the one that has failed.
  descriptorSink(STDERR_FILENO)(line, std::chrono::milliseconds(0));
  std::abort();
}

void cannotStart(std::string_view reason) {
  std::string line = "qm5-updater: can't start: ";
  line.append(reason);
  writeSystemLog(line);
  writeLine(StandardStream::error, line);
  flushLines();
  std::_Exit(EXIT_FAILURE);
}

}  // namespace qm5
