#include "platform/system_log.h"

#include <mutex>
#include <utility>

#include "platform/line_recorder.h"
#include "platform/line_writer.h"

namespace qm5 {
namespace {

std::mutex mutex;
LineSink system_log;

}  // namespace

void log(std::string_view line) {
  recordLine(line);
  const std::lock_guard lock(mutex);
  if (system_log) return system_log(line);
  writeSystemLog(line);
  writeLine(StandardStream::error, line);
}

void setSystemLog(LineSink sink) {
  const std::lock_guard lock(mutex);
  system_log = std::move(sink);
}

}  // namespace qm5
