// Everything that leaves the system, in one list in order: console lines ("out: ..."), system-log
// lines ("log: ...") and what the fakes note.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/console.h"
#include "platform/system_log.h"

namespace qm5::test {

using Lines = std::vector<std::string>;

/// A list of lines. Any thread.
class Notes {
 public:
  void note(std::string line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }
  /// Returns the lines noted since the last call.
  Lines newLines() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

 private:
  std::mutex mutex_;
  Lines lines_;
};

class Transcript : public Notes {
 public:
  Transcript() {
    setConsole([this](std::string_view line) { note("out: " + std::string(line)); });
    setSystemLog([this](std::string_view line) { note("log: " + std::string(line)); });
  }
  ~Transcript() {
    setConsole({});
    setSystemLog({});
  }
  Transcript(const Transcript&) = delete;
};

}  // namespace qm5::test
