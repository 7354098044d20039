#include "platform/system_log.h"

#include <syslog.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

namespace qm5 {
namespace {

std::mutex mutex;
LineSink system_log;

}  // namespace

void log(std::string_view line) {
  const std::lock_guard lock(mutex);
  if (system_log) {
    system_log(line);
    return;
  }
  // The identity must outlive every entry: a literal does. Opening again only sets it anew.
  openlog("qm5-updater", LOG_PID, LOG_USER);
  std::string whole(line);
  syslog(LOG_NOTICE, "%s", whole.c_str());
  whole += '\n';
  std::fwrite(whole.data(), 1, whole.size(), stderr);
}

void setSystemLog(LineSink sink) {
  const std::lock_guard lock(mutex);
  system_log = std::move(sink);
}

}  // namespace qm5
