#include "platform/line_writer.h"

#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <utility>

#include "platform/program_name.h"
#include "platform/thread.h"

namespace qm5 {
namespace {

using std::chrono::milliseconds;
using Time = std::chrono::steady_clock::time_point;

// How long a stream that takes nothing may keep the lines of another one waiting.
constexpr milliseconds kStalledWait{50};
constexpr milliseconds kFlushTimeout{200};
constexpr milliseconds kBusyTime{5'000};

// How long lines are collected after others have been written. To wake the writer for each line
// would cost the submitter some 10 us each time.
constexpr milliseconds kCollectTime{20};

std::size_t writeToSystemLog(std::string_view lines, milliseconds) {
  const std::string line(lines.substr(0, lines.find('\n')));
  // The identity must outlive every entry, as the name does. Opening again only sets it anew.
  openlog(programName(), LOG_PID, LOG_USER);
  syslog(LOG_NOTICE, "%s", line.c_str());
  return std::min(line.size() + 1, lines.size());
}

// The beginning of `lines` that a pipe which is ready takes at once, without waiting and without
// the lines of another process in between.
std::string_view wholeLines(std::string_view lines) {
  if (lines.size() <= PIPE_BUF) return lines;
  const std::size_t last_feed = lines.rfind('\n', PIPE_BUF - 1);
  return lines.substr(0, last_feed == lines.npos ? PIPE_BUF : last_feed + 1);
}

// One writer for both standard streams keeps their lines in order on a terminal that shows both.
LineWriter& standardStreams() {
  static auto* const writer =
      new LineWriter("Lines", {descriptorSink(STDOUT_FILENO), descriptorSink(STDERR_FILENO)});
  return *writer;
}

// The system log may stall by itself, when its service has been stopped.
LineWriter& systemLog() {
  static auto* const writer = new LineWriter("SystemLog", {writeToSystemLog});
  return *writer;
}

}  // namespace

LineWriter::LineWriter(std::string thread_name, std::vector<Sink> sinks)
    : thread_name_(std::move(thread_name)) {
  for (Sink& sink : sinks) streams_.push_back({.sink = std::move(sink)});
}

void LineWriter::submit(std::size_t stream, std::string_view line) {
  std::unique_lock lock(mutex_);
  Stream& target = streams_[stream];
  if (target.left_out > 0 || target.queued + line.size() >= kBytesKept) {
    ++target.left_out;
    return;
  }
  enqueue(stream, line);
  if (!has_thread_ && !startThread()) {
    writeBatches(lock);
    return;
  }
  const bool is_writer_asleep = !collecting_;
  lock.unlock();
  if (is_writer_asleep) submitted_.notify_one();
}

// Called with the mutex held, as are the others below.
void LineWriter::enqueue(std::size_t stream, std::string_view line) {
  if (batches_.empty() || batches_.back().stream != stream) batches_.push_back({stream, {}});
  batches_.back().lines.append(line).push_back('\n');
  streams_[stream].queued += line.size() + 1;
}

bool LineWriter::startThread() {
  has_thread_ = Thread(thread_name_, [this] { run(); }).start();
  return has_thread_;
}

void LineWriter::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    submitted_.wait(lock, [this] { return !batches_.empty(); });
    if (writing_) {  // a thread that submitted while there was no other
      submitted_.wait_for(lock, kStalledWait);
    } else if (!writeBatches(lock)) {
      writeBatch(batches_.begin(), lock, kStalledWait);
    } else {
      collecting_ = true;
      submitted_.wait_for(lock, kCollectTime);
      collecting_ = false;
    }
  }
}

// Writes what the streams take; true when that was everything.
bool LineWriter::writeBatches(std::unique_lock<std::mutex>& lock) {
  if (writing_) return false;
  for (Stream& stream : streams_) stream.stalled = false;
  while (true) {
    const auto next = std::find_if(batches_.begin(), batches_.end(), [this](const Batch& batch) {
      return !streams_[batch.stream].stalled;
    });
    if (next == batches_.end()) return batches_.empty();
    writeBatch(next, lock, milliseconds(0));
  }
}

void LineWriter::writeBatch(const std::deque<Batch>::iterator& batch,
                            std::unique_lock<std::mutex>& lock, milliseconds timeout) {
  Batch current = std::move(*batch);
  batches_.erase(batch);
  Stream& stream = streams_[current.stream];
  writing_ = true;
  lock.unlock();
  std::string_view unwritten = current.lines;
  std::size_t written = 0;
  do {
    written = stream.sink(unwritten, timeout);
    unwritten.remove_prefix(written);
  } while (written > 0 && !unwritten.empty());
  lock.lock();
  writing_ = false;
  stream.queued -= current.lines.size() - unwritten.size();
  stream.stalled = !unwritten.empty();
  if (stream.stalled) {
    batches_.push_front({current.stream, std::string(unwritten)});
  } else if (stream.queued == 0 && stream.left_out > 0) {
    enqueue(current.stream, std::to_string(std::exchange(stream.left_out, 0)) + " lines left out");
  }
  written_.notify_all();
}

void LineWriter::flush(Time deadline, Time last) {
  submitted_.notify_one();  // the writer need not collect any longer
  std::unique_lock lock(mutex_);
  const auto wait = [&](Time end, bool gives_up) {
    return written_.wait_until(lock, end, [&] {
      return std::all_of(streams_.begin(), streams_.end(), [gives_up](const Stream& stream) {
        return stream.queued == 0 || (gives_up && stream.stalled);
      });
    });
  };
  if (!wait(deadline, false)) wait(last, true);
}

LineWriter::Sink descriptorSink(int descriptor) {
  return [descriptor](std::string_view lines, milliseconds timeout) -> std::size_t {
    pollfd ready{descriptor, POLLOUT, 0};
    if (::poll(&ready, 1, static_cast<int>(timeout.count())) <= 0) return 0;
    const std::string_view next = wholeLines(lines);
    const ssize_t written = ::write(descriptor, next.data(), next.size());
    if (written >= 0) return static_cast<std::size_t>(written);
    return errno == EAGAIN || errno == EINTR ? 0 : lines.size();
  };
}

void writeLine(StandardStream stream, std::string_view line) {
  standardStreams().submit(static_cast<std::size_t>(stream), line);
}

void writeSystemLog(std::string_view line) {
  systemLog().submit(0, line);
}

void flushLines() {
  const Time deadline = std::chrono::steady_clock::now() + kFlushTimeout;
  standardStreams().flush(deadline, deadline + kBusyTime);
  systemLog().flush(deadline, deadline);
}

}  // namespace qm5
