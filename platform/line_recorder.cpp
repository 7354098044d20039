#include "platform/line_recorder.h"

#include <mutex>

#include "platform/fatal.h"

namespace qm5 {
namespace {

std::mutex recorder_mutex;  // for the recorder's lines as well
LineRecorder* recorder = nullptr;

}  // namespace

LineRecorder::LineRecorder() {
  const std::lock_guard lock(recorder_mutex);
  if (recorder != nullptr) fatal("a second recorder of lines");
  recorder = this;
}

LineRecorder::~LineRecorder() {
  const std::lock_guard lock(recorder_mutex);
  recorder = nullptr;
}

std::vector<std::string> LineRecorder::lines() const {
  const std::lock_guard lock(recorder_mutex);
  std::vector<std::string> lines;
  if (left_out_ > 0) lines.push_back(std::to_string(left_out_).append(" earlier lines left out"));
  lines.insert(lines.end(), lines_.begin(), lines_.end());
  return lines;
}

void recordLine(std::string_view line) {
  const std::lock_guard lock(recorder_mutex);
  if (recorder == nullptr) return;
  recorder->lines_.emplace_back(line);
  if (recorder->lines_.size() <= LineRecorder::kLinesKept) return;
  recorder->lines_.pop_front();
  ++recorder->left_out_;
}

}  // namespace qm5
