// Keeps the lines that the process writes, for a window that shows them.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace qm5 {

/// Keeps a copy of each line that print() and log() are given while the object lives, the last
/// kLinesKept of them. At most one at a time. Any thread.
class LineRecorder {
 public:
  /// Enough for the lines of an image of 1 MiB; the text of a window should not grow further.
  static constexpr std::size_t kLinesKept = 20'000;

  LineRecorder();
  ~LineRecorder();
  LineRecorder(const LineRecorder&) = delete;
  LineRecorder& operator=(const LineRecorder&) = delete;

  /// The lines so far, without line feeds; the first one says how many have been left out, when
  /// there were more than are kept.
  std::vector<std::string> lines() const;

 private:
  friend void recordLine(std::string_view line);

  std::deque<std::string> lines_;
  std::size_t left_out_ = 0;
};

/// Hands a line to the recorder, if there is one. For print() and log(). Any thread.
void recordLine(std::string_view line);

}  // namespace qm5
