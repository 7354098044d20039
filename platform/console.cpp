#include "platform/console.h"

#include <mutex>
#include <utility>

#include "platform/line_recorder.h"
#include "platform/line_writer.h"

namespace qm5 {
namespace {

std::mutex mutex;
LineSink console;

}  // namespace

void print(std::string_view line) {
  recordLine(line);
  const std::lock_guard lock(mutex);
  if (console) return console(line);
  writeLine(StandardStream::output, line);
}

void setConsole(LineSink sink) {
  const std::lock_guard lock(mutex);
  console = std::move(sink);
}

}  // namespace qm5
