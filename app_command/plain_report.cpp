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
constexpr std::size_t kUsualRows = 24;
constexpr std::size_t kLeastBar = 10;
constexpr std::size_t kMostBar = 50;
constexpr std::size_t kBesideBar = 46;  // brackets, percentage, the longest text and a free column
constexpr std::size_t kLinesShown = 8;  // of the engine, after a failure
constexpr std::size_t kLongestLine = 76;

// The terminal's own control sequences.
constexpr std::string_view kEmptyLine = "\r\x1b[K";
constexpr std::string_view kEmptyFromHere = "\r\x1b[J";

std::string up(std::size_t lines) {
  return "\x1b[" + std::to_string(lines) + "A";
}

std::string down(std::size_t lines) {
  return lines == 0 ? "" : "\x1b[" + std::to_string(lines) + "B";
}

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

std::size_t rowsOf(int terminal) {
  winsize size{};
  if (::ioctl(terminal, TIOCGWINSZ, &size) != 0 || size.ws_row == 0) return kUsualRows;
  return size.ws_row;
}

// As wide as the terminal at most: a line that wraps could not be replaced.
std::string barOf(const Progress& progress, std::string_view label, std::size_t columns) {
  const std::size_t width = std::max(columns, label.size() + 1) - label.size();
  const double done = progress.percent.value_or(0);
  const std::string percent = oneDecimal(done);
  std::string text = "] ";
  text.append(5 - std::min<std::size_t>(percent.size(), 5), ' ').append(percent).append(" %  ");
  text.append(progress.remaining.empty() ? progress.elapsed : progress.remaining);
  const std::size_t room = width > kBesideBar ? width - kBesideBar : 0;
  const std::size_t length = std::clamp(room, kLeastBar, kMostBar);
  const double part = std::clamp(done / 100, 0.0, 1.0);
  const auto filled = static_cast<std::size_t>(std::lround(part * static_cast<double>(length)));
  std::string line = std::string(label).append("[");
  line.append(filled, '#').append(length - filled, '-').append(text);
  return line.substr(0, columns - 1);
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

std::string inColumn(std::string text) {
  constexpr std::size_t kColumn = 12;
  text.resize(std::max(text.size() + 1, kColumn), ' ');
  return text;
}

// Port, version and access, in columns.
std::string describe(const AttachedDevice& device) {
  std::string line = inColumn(device.location.empty() ? "?" : device.location);
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

PlainReport::PlainReport(bool quiet, bool many)
    : quiet_(quiet), many_(many), has_bars_(!quiet && canMoveCursor()) {}

void PlainReport::listed(const AttachedDevice& device) {
  const std::lock_guard lock(mutex_);
  // Also when quiet: nothing else was asked for.
  writeLine(StandardStream::output, describe(device));
}

void PlainReport::note(const Subject& subject, std::string_view text) {
  const std::lock_guard lock(mutex_);
  write(labelOf(subject).append(text));
}

void PlainReport::updating(const Subject& subject) {
  std::string text = "Updating firmware version from ";
  text.append(subject.version).append(" -> ").append(subject.target_version);
  if (!many_ && !subject.device.empty()) text.append(", at port ").append(subject.device);
  note(subject, text.append("."));
}

void PlainReport::progressed(const Subject& subject, const Progress& progress) {
  const std::lock_guard lock(mutex_);
  std::string& phase = phases_[keyOf(subject)];
  // The phases of many would drive each other off the screen.
  if (phase != progress.phase && !(many_ && has_bars_)) {
    phase = progress.phase;
    write(labelOf(subject).append(phase));
  }
  if (!has_bars_ || is_asking_ || !progress.percent) return;
  drawBar(keyOf(subject),
          barOf(progress, many_ ? inColumn(subject.device) : "", columnsOf(STDOUT_FILENO)));
}

void PlainReport::confirming(const Subject& subject, const Verdict& update) {
  const std::lock_guard lock(mutex_);
  removeBar(keyOf(subject));
  for (const std::string& line : lines(subject, update)) write(line);
}

void PlainReport::ended(const Subject& subject, const Verdict& verdict) {
  const std::lock_guard lock(mutex_);
  removeBar(keyOf(subject));
  if (isGood(verdict.status)) {
    for (const std::string& line : lines(subject, verdict)) write(line);
    return;
  }
  std::string name = "qm5-update: ";
  for (const std::string& line : lines(subject, verdict))
    write(std::exchange(name, "") + line, StandardStream::error);
  // A run that was not confirmed has succeeded.
  if (verdict.status == ExitStatus::failed && verdict.outcome != kUnconfirmed)
    writeLastLines(subject);
}

void PlainReport::engineLine(std::string_view device, std::string_view line) {
  const std::lock_guard lock(mutex_);
  std::deque<std::string>& newest = engine_[std::string(device)];
  newest.emplace_back(line);
  if (newest.size() > kLinesShown) newest.pop_front();
}

bool PlainReport::ask(std::string_view question) {
  const bool has_errors = ::isatty(STDERR_FILENO) != 0;
  if (!has_errors && ::isatty(STDOUT_FILENO) == 0) return false;
  const std::lock_guard lock(mutex_);
  is_asking_ = true;
  bars_.clear();
  writeLine(has_errors ? StandardStream::error : StandardStream::output, question);
  return true;
}

void PlainReport::answered() {
  const std::lock_guard lock(mutex_);
  is_asking_ = false;
  for (const auto& [stream, line] : std::exchange(held_back_, {})) write(line, stream);
}

// Of one QM5 alone, it may not be known yet at which port it is.
std::string PlainReport::keyOf(const Subject& subject) const {
  return many_ ? subject.device : "";
}

std::string PlainReport::labelOf(const Subject& subject) const {
  return many_ && !subject.device.empty() ? subject.device + ": " : "";
}

// Of several QM5s, one line each, in sentences.
std::vector<std::string> PlainReport::lines(const Subject& subject, const Verdict& verdict) const {
  if (!many_) return verdict.lines;
  std::string line = labelOf(subject);
  std::string_view separator;
  for (const std::string& each : verdict.lines) {
    line.append(separator).append(each);
    separator = each.find_last_of(".!?") + 1 == each.size() ? " " : ". ";
  }
  return {line};
}

// Called with the mutex held, as are those below.
void PlainReport::write(std::string_view line, StandardStream stream) {
  if (quiet_ && stream == StandardStream::output) return;
  if (is_asking_) {
    held_back_.emplace_back(stream, line);
    return;
  }
  eraseBars();
  writeLine(stream, fitted(stream, line));
  drawBars();
}

void PlainReport::drawBar(const std::string& device, const std::string& bar) {
  const auto shown = bars_.find(device);
  if (shown == bars_.end()) {
    if (bars_.size() + 1 >= rowsOf(STDOUT_FILENO)) return;  // what scrolls away can't be replaced
    eraseBars();
    bars_[device] = bar;
    return drawBars();
  }
  if (bar == shown->second) return;
  shown->second = bar;
  const auto lines = static_cast<std::size_t>(std::distance(shown, bars_.end()));
  std::string text = up(lines).append(kEmptyLine).append(bar);
  writeLine(StandardStream::output, text.append(down(lines - 1)));
}

// The only one stays on the screen.
void PlainReport::removeBar(const std::string& device) {
  if (!many_) return bars_.clear();
  if (!bars_.contains(device)) return;
  eraseBars();
  bars_.erase(device);
  drawBars();
}

// Leaves the cursor where the first of them was: the line feed behind the text takes it down again.
void PlainReport::eraseBars() {
  if (bars_.empty()) return;
  std::string text = up(bars_.size()).append(kEmptyFromHere);
  writeLine(StandardStream::output, text.append(up(1)));
}

void PlainReport::drawBars() {
  for (const auto& [device, bar] : bars_) writeLine(StandardStream::output, bar);
}

void PlainReport::writeLastLines(const Subject& subject) {
  const std::deque<std::string>& newest = engine_[keyOf(subject)];
  if (newest.empty() || quiet_) return;
  write(labelOf(subject).append("The last lines of the run:"), StandardStream::error);
  for (std::string line : newest) {
    if (line.size() > kLongestLine) line.replace(kLongestLine - 3, line.npos, "...");
    write("  " + line, StandardStream::error);
  }
}

}  // namespace qm5
