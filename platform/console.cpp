#include "platform/console.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

namespace qm5 {
namespace {

std::mutex mutex;
LineSink console;

}  // namespace

void print(std::string_view line) {
  const std::lock_guard lock(mutex);
  if (console) {
    console(line);
    return;
  }
  std::string whole(line);
  whole += '\n';
  std::fwrite(whole.data(), 1, whole.size(), stdout);
  std::fflush(stdout);
}

void setConsole(LineSink sink) {
  const std::lock_guard lock(mutex);
  console = std::move(sink);
}

}  // namespace qm5
