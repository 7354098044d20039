#include "app_command/plain_report.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "platform/text.h"

namespace qm5 {
namespace {

constexpr std::size_t kUsualColumns = 80;
constexpr std::size_t kLeastBar = 10;
constexpr std::size_t kMostBar = 50;
constexpr std::size_t kBesideBar = 46;  // brackets, percentage, the longest text and a free column
constexpr std::size_t kLinesShown = 8;  // of the engine, after a failure
constexpr std::size_t kLongestLine = 76;

// One line up, to its beginning, and the line is emptied: the terminal's own control sequences.
constexpr std::string_view kReplaceLastLine = "\x1b[1A\r\x1b[K";

bool canMoveCursor() {
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) != 0 && terminal != nullptr && *terminal != '\0' &&
         std::string_view(terminal) != "dumb";
}

std::size_t columnsOf(int terminal) {
  winsize size{};
  if (::ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return kUsualColumns;
  return size.ws_col;
}

// As wide as the terminal at most: a line that wraps could not be replaced.
std::string barOf(const Progress& progress, std::size_t width) {
  const double done = progress.percent.value_or(0);
  const std::string percent = oneDecimal(done);
  std::string text = "] ";
  text.append(5 - std::min<std::size_t>(percent.size(), 5), ' ').append(percent).append(" %  ");
  text.append(progress.remaining.empty() ? progress.elapsed : progress.remaining);
  const std::size_t room = width > kBesideBar ? width - kBesideBar : 0;
  const std::size_t length = std::clamp(room, kLeastBar, kMostBar);
  const double part = std::clamp(done / 100, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(std::lround(part * static_cast<double>(length)));
  std::string line = "[";
  line.append(filled, '#').append(length - filled, '-').append(text);
  return line.substr(0, width - 1);
}

// Broken at blanks where a terminal would break it within a word.
std::string fitted(StandardStream stream, std::string_view line) {
  const int descriptor = stream == StandardStream::output ? STDOUT_FILENO : STDERR_FILENO;
  std::string lines(line);
  if (::isatty(descriptor) == 0) return lines;
  const std::size_t width = columnsOf(descriptor) - 1;  // the last column wraps by itself
  for (std::size_t begin = 0; lines.size() - begin > width;) {
    const std::size_t blank = lines.rfind(' ', begin + width);
    if (blank == lines.npos || blank <= begin) break;
    lines[blank] = '\n';
    begin = blank + 1;
  }
  return lines;
}

// Port, version and access, in columns.
std::string describe(const AttachedDevice& device) {
  constexpr std::size_t kColumn = 12;
  std::string line = device.location.empty() ? "?" : device.location;
  line.resize(std::max(line.size() + 1, kColumn), ' ');
  line.append(device.version.value_or("-   ")).append("  ");
  switch (device.access) {
    case AttachedDevice::Access::permitted:
      return line.append("permitted");
    case AttachedDevice::Access::notPermitted:
      return line.append("not permitted");
    case AttachedDevice::Access::failed:
      break;
  }
  return line.append("can't be opened");
}

bool isGood(ExitStatus status) {
  return status == ExitStatus::upToDate || status == ExitStatus::updateDue;
}

}  // namespace

PlainReport::PlainReport(bool quiet) : quiet_(quiet), has_bar_(!quiet && canMoveCursor()) {}

void PlainReport::listed(const std::vector<AttachedDevice>& devices) {
  const std::lock_guard lock(mutex_);
  // Also when quiet: nothing else was asked for.
  for (const AttachedDevice& each : devices) writeLine(StandardStream::output, describe(each));
}

void PlainReport::note(std::string_view text) {
  const std::lock_guard lock(mutex_);
  write(text);
}

void PlainReport::updating(const Subject& subject) {
  std::string text = "Updating firmware version from ";
  text.append(subject.version).append(" -> ").append(subject.target_version);
  if (!subject.device.empty()) text.append(", at port ").append(subject.device);
  note(text.append("."));
}

void PlainReport::progressed(const Subject&, const Progress& progress) {
  const std::lock_guard lock(mutex_);
  if (phase_ != progress.phase) {
    phase_ = progress.phase;
    write(phase_);
  }
  if (has_bar_ && !is_asking_ && progress.percent) drawBar(progress);
}

void PlainReport::confirming(const Subject&, const Verdict& update) {
  const std::lock_guard lock(mutex_);
  bar_.clear();
  for (const std::string& line : update.lines) write(line);
}

void PlainReport::ended(const Subject&, const Verdict& verdict) {
  const std::lock_guard lock(mutex_);
  bar_.clear();
  if (isGood(verdict.status)) {
    for (const std::string& line : verdict.lines) write(line);
    return;
  }
  std::string name = "qm5-update: ";
  for (const std::string& line : verdict.lines)
    writeLine(StandardStream::error, fitted(StandardStream::error, std::exchange(name, "") + line));
  if (verdict.status == ExitStatus::failed) writeLastLines();
}

void PlainReport::engineLine(std::string_view line) {
  const std::lock_guard lock(mutex_);
  engine_.emplace_back(line);
  if (engine_.size() > kLinesShown) engine_.pop_front();
}

bool PlainReport::ask(std::string_view question) {
  const bool has_errors = ::isatty(STDERR_FILENO) != 0;
  if (!has_errors && ::isatty(STDOUT_FILENO) == 0) return false;
  const std::lock_guard lock(mutex_);
  is_asking_ = true;
  bar_.clear();
  writeLine(has_errors ? StandardStream::error : StandardStream::output, question);
  return true;
}

void PlainReport::answered() {
  const std::lock_guard lock(mutex_);
  is_asking_ = false;
}

// Called with the mutex held, as are the two below.
void PlainReport::write(std::string_view line) {
  if (quiet_) return;
  const std::string lines = fitted(StandardStream::output, line);
  if (bar_.empty()) return writeLine(StandardStream::output, lines);
  writeLine(StandardStream::output, std::string(kReplaceLastLine).append(lines));
  writeLine(StandardStream::output, bar_);
}

void PlainReport::drawBar(const Progress& progress) {
  std::string bar = barOf(progress, columnsOf(STDOUT_FILENO));
  if (bar == bar_) return;
  writeLine(StandardStream::output, bar_.empty() ? bar : std::string(kReplaceLastLine).append(bar));
  bar_ = std::move(bar);
}

void PlainReport::writeLastLines() {
  if (engine_.empty() || quiet_) return;
  writeLine(StandardStream::error, "The last lines of the run:");
  for (std::string line : engine_) {
    if (line.size() > kLongestLine) line.replace(kLongestLine - 3, line.npos, "...");
    writeLine(StandardStream::error, "  " + line);
  }
}

}  // namespace qm5
